#include "host/waveform_picture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace marlinda {
namespace {

constexpr Colour kWave{38, 92, 158};
constexpr int kWidth = 200;
constexpr int kHeight = 220;  // 200 for the lanes, 20 for the axis

// A picture of one second of mono whose columns are given by a function of the column.
template <class Pair>
Picture Draw(Pair pair, Annotations annotations = {}, int channels = 1) {
  std::vector<float> pairs;
  for (int column = 0; column < kWidth; ++column) {
    for (int channel = 0; channel < channels; ++channel) {
      const auto [minimum, maximum] = pair(column, channel);
      pairs.push_back(minimum);
      pairs.push_back(maximum);
    }
  }
  return DrawWaveform({pairs, channels, 0, 44100, 44100, std::move(annotations)}, kWidth, kHeight);
}

struct Extent {
  int top = -1;
  int bottom = -1;
  int count = 0;
};

Extent WaveIn(const Picture& picture, int column, int from = 0, int to = 200) {
  Extent extent;
  for (int y = from; y < to; ++y) {
    if (picture.At(column, y) != kWave) continue;
    if (extent.count++ == 0) extent.top = y;
    extent.bottom = y;
  }
  return extent;
}

TEST(WaveformPicture, EachLaneShowsItsChannelsMinimumAndMaximum) {
  const float nan = std::nanf("");
  const Picture picture = Draw(
      [&](int column, int channel) {
        if (column < 50) return std::pair(0.0F, 0.0F);
        if (column == 60) return std::pair(3.4e38F, -3.4e38F);  // a column without samples
        if (column == 70) return std::pair(nan, nan);
        return channel == 0 ? std::pair(-3.0F, 1.0e30F) : std::pair(-0.5F, 0.5F);
      },
      {}, 2);
  EXPECT_EQ(WaveIn(picture, 40, 0, 100).count, 1);
  EXPECT_NEAR(WaveIn(picture, 40, 0, 100).top, 48, 1);
  EXPECT_EQ(WaveIn(picture, 80, 0, 100).top, 0);
  EXPECT_GE(WaveIn(picture, 80, 0, 100).count, 95);
  EXPECT_NEAR(WaveIn(picture, 80, 100, 200).count, 48, 2);
  EXPECT_NEAR(WaveIn(picture, 80, 100, 200).top, 124, 2);
  EXPECT_EQ(WaveIn(picture, 60).count, 0);
  EXPECT_EQ(WaveIn(picture, 70).count, 0);
}

TEST(WaveformPicture, EveryColumnTouchesItsNeighbourAndHasNoHoles) {
  std::mt19937 random(5);
  std::uniform_real_distribution<float> sample(-1.0F, 1.0F);
  const Picture picture = Draw([&](int, int) {
    const float a = sample(random);
    return std::pair(a, a + 0.01F);
  });
  for (int column = 1; column < kWidth; ++column) {
    const Extent before = WaveIn(picture, column - 1);
    const Extent here = WaveIn(picture, column);
    ASSERT_EQ(here.count, here.bottom - here.top + 1) << column;
    ASSERT_LE(here.top, before.bottom) << column;
    ASSERT_GE(here.bottom, before.top) << column;
  }
}

TEST(WaveformPicture, LabelsAndMarkersStandAtTheirTimes) {
  Annotations annotations;
  annotations.labels = {{22050, "Half"}, {-5, "before"}, {44100, "after"}};
  annotations.markers = {{{4410, 8820}, "Verse"}, {{30000, 20000}, "backward"}};
  const Picture picture = Draw([](int, int) { return std::pair(0.0F, 0.0F); }, annotations);
  const Colour label{196, 48, 43};
  const Colour marker{178, 120, 10};
  EXPECT_EQ(picture.At(100, 150), label);
  EXPECT_EQ(picture.At(20, 150), marker);
  EXPECT_EQ(picture.At(40, 150), marker);
  EXPECT_NE(picture.At(30, 150), picture.At(60, 150));  // the marked section is tinted
  EXPECT_NE(picture.At(0, 150), label);
  EXPECT_NE(picture.At(kWidth - 1, 150), label);
}

TEST(WaveformPicture, TicksAreFarEnoughApartAndReadAsTimes) {
  EXPECT_DOUBLE_EQ(TickStep(12.0, 1200, 70), 1.0);
  EXPECT_DOUBLE_EQ(TickStep(1.0, 1200, 70), 0.1);
  EXPECT_DOUBLE_EQ(TickStep(3600.0, 1200, 70), 300.0);
  EXPECT_DOUBLE_EQ(TickStep(1e7, 1200, 70), 7 * 86400.0);
  EXPECT_EQ(TickText(0, 1), "0");
  EXPECT_EQ(TickText(0.25, 0.05), "0.25");
  EXPECT_EQ(TickText(12, 1), "12");
  EXPECT_EQ(TickText(59.99999, 0.5), "1:00.0");
  EXPECT_EQ(TickText(185, 5), "3:05");
  EXPECT_EQ(TickText(65.5, 0.5), "1:05.5");
  EXPECT_EQ(TickText(3600, 600), "1:00:00");
}

TEST(WaveformPicture, NamesOfAnyLengthAndScriptAreDrawnWithinThePicture) {
  Annotations annotations;
  annotations.labels = {{44000, std::string(5000, 'x')}, {100, "Caf\xC3\xA9 \xE4\xBD\xA0"}};
  const Picture picture = Draw([](int, int) { return std::pair(0.0F, 0.0F); }, annotations);
  EXPECT_EQ(picture.bytes().size(), 3U * kWidth * kHeight);
  EXPECT_EQ(TextWidth("Caf\xC3\xA9"), TextWidth("Caf?"));
  // The smallest picture has room for nothing but still a lane.
  EXPECT_NO_THROW(DrawWaveform({{}, 8, 0, 1, 0, annotations}, 32, 32));
}

}  // namespace
}  // namespace marlinda
