// Tests the kernels of the editor: view, ruler and undo stack.
#include <gmock/gmock.h>

#include <random>

#include "editor/ruler.h"
#include "editor/undo_stack.h"
#include "editor/view.h"

namespace marlinda::editor {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t kTenHours = 36000LL * 44100;

View ViewOf(std::int64_t frames, int width) {
  View view;
  view.SetWidth(width);
  view.SetLength(frames);
  return view;
}

TEST(View, ShowsAllOfAGrowingDocumentUntilTheUserZooms) {
  View view = ViewOf(1000, 100);
  EXPECT_EQ(view.visible(), (Range{0, 1000}));
  view.SetLength(kTenHours);
  EXPECT_EQ(view.visible(), (Range{0, kTenHours}));
  view.ZoomAt(50, 2);
  const Zoom zoom = view.zoom();
  view.SetLength(2 * kTenHours);
  EXPECT_EQ(view.zoom(), zoom) << "a part that the user has chosen is not left";
}

TEST(View, ZoomingKeepsTheFrameUnderTheMouseOrTheCursor) {
  View around = ViewOf(kTenHours, 1920);
  const int cursor = around.PixelOf(kTenHours / 3);
  while (around.zoom().pixels < View::kMaxPixelsPerFrame) {
    around.ZoomAround(kTenHours / 3, around.PixelOf(kTenHours / 3), 2);
    ASSERT_EQ(around.PixelOf(kTenHours / 3), cursor);
  }
  for (const std::int64_t length : {std::int64_t{50'000}, kTenHours}) {
    View view = ViewOf(length, 1920);
    while (view.zoom().pixels < View::kMaxPixelsPerFrame) {
      const Zoom before = view.zoom();
      const std::int64_t frame = view.FrameAt(700) + before.frames / 2;
      view.ZoomAt(700, 1.5);
      ASSERT_NE(view.zoom(), before) << "each step shows less";
      ASSERT_NEAR(view.PixelOf(frame), 700, 1);
    }
    for (int step = 0; step < 200 && !view.ShowsAll(); ++step) view.ZoomAt(700, 1 / 1.5);
    EXPECT_EQ(view.visible(), (Range{0, length}));
  }
}

TEST(View, PixelsAndFramesConvertBackAndForthAtEveryZoomAndScrollPosition) {
  std::mt19937 random(1);
  View view = ViewOf(kTenHours, 1280);
  for (int i = 0; i < 2000; ++i) {
    view.ZoomAt(static_cast<int>(random() % 1280), random() % 2 == 0 ? 1.5 : 0.7);
    view.ScrollBy(static_cast<std::int64_t>(random() % 100'000) - 50'000);
    const int x = static_cast<int>(random() % 1280);
    const std::int64_t frame = view.FrameAt(x);
    if (frame == kTenHours) continue;
    ASSERT_NEAR(view.PixelOf(frame), x, view.zoom().pixels);
    ASSERT_LE(view.origin() + view.width(), std::max<std::int64_t>(view.extent(), view.width()));
    ASSERT_GE(view.origin(), 0);
    const std::int64_t origin = view.origin();
    view.ScrollBy(7);
    ASSERT_EQ(view.FrameAt(x - static_cast<int>(view.origin() - origin)), frame);
  }
}

TEST(View, ShowRangeShowsTheWholeRangeAndMakeVisibleScrollsToTheFrame) {
  View view = ViewOf(kTenHours, 1000);
  for (const Range range : {Range{12'345, 999'999}, Range{0, kTenHours}, Range{500, 520}}) {
    view.ShowRange(range);
    EXPECT_LE(view.visible().begin, range.begin);
    EXPECT_GE(view.visible().end, range.end);
    EXPECT_LE(view.visible().length(), 2 * range.length() + 20);
  }
  view.MakeVisible(1'000'000);
  EXPECT_TRUE(view.visible().Holds(1'000'000));
  // At close zooms, FrameAt returns the frame that is nearest to the pixel.
  EXPECT_EQ(view.FrameAt(view.PixelOf(1'000'001) - 1), 1'000'001);
  view.ZoomAt(0, 1e6);
  EXPECT_EQ(view.zoom().pixels, View::kMaxPixelsPerFrame);
  view.ScrollBy(std::int64_t{1} << 40);
  EXPECT_GT(view.visible().length(), 1);
}

TEST(Ruler, TicksAreAtRoundTimesAndTheirTextsDoNotOverlap) {
  const std::tuple<double, RulerUnit, std::string> cases[] = {{0.01, RulerUnit::kTime, ""},
                                                              {0.8, RulerUnit::kTime, "0:00.1"},
                                                              {36000, RulerUnit::kTime, "1:00:00"},
                                                              {60, RulerUnit::kFrames, "500000"}};
  for (const auto& [seconds, unit, second] : cases) {
    const View view = ViewOf(static_cast<std::int64_t>(seconds * 44100), 1000);
    std::vector<Tick> ticks = RulerTicks(view, 44100, unit, 90);
    std::erase_if(ticks, [](const Tick& tick) { return tick.text.empty(); });
    ASSERT_GE(ticks.size(), 2U) << seconds;
    for (std::size_t i = 1; i < ticks.size(); ++i) EXPECT_GE(ticks[i].x - ticks[i - 1].x, 89);
    EXPECT_TRUE(second.empty() || ticks[1].text == second) << ticks[1].text;
  }
  EXPECT_EQ(FormatPosition(44100 * 3661 + 22050, 44100, RulerUnit::kTime), "1:01:01.500");
  EXPECT_EQ(ParseSeconds("1.5", 44100), 66150);
  for (const char* const text : {"", "-1", "0", "x", "1x", "1e9", "nan"}) {
    EXPECT_EQ(ParseSeconds(text, 44100), -1) << text;
  }
  const int xs[] = {0, 10, 100, 104, 190};
  EXPECT_THAT(RoomForNames(xs, 200, 12), ElementsAre(0, 90, 0, 86, 0));
}

TEST(UndoStack, RestoresStatesInOrderAndTracksTheSavedState) {
  UndoStack<int> stack;
  for (const int next : {1, 2, 3}) stack.Store("to " + std::to_string(next), next - 1);
  stack.MarkSaved();
  EXPECT_EQ(stack.UndoName(), "to 3");
  EXPECT_EQ(stack.Undo(3), 2);
  EXPECT_FALSE(stack.IsSaved());
  EXPECT_EQ(stack.Undo(2), 1);
  EXPECT_EQ(stack.RedoName(), "to 2");
  EXPECT_EQ(stack.Redo(1), 2);
  EXPECT_EQ(stack.Redo(2), 3);
  EXPECT_TRUE(stack.IsSaved());
  EXPECT_EQ(stack.Undo(3), 2);
  stack.Store("to 9", 2);
  EXPECT_FALSE(stack.IsSaved()) << "as many edits, but others";
  EXPECT_FALSE(stack.CanRedo());
  EXPECT_EQ(stack.Withdraw(), 2);
  EXPECT_EQ(stack.Undo(2), 1);
  EXPECT_EQ(stack.Undo(1), 0);
}

}  // namespace
}  // namespace marlinda::editor
