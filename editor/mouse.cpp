// The mouse in the editor's window: selecting, scrubbing, scrolling, zooming, and dragging marks.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "editor/editor_window.h"
#include "editor/resource.h"

namespace marlinda::editor {
namespace {

constexpr int kReach = 5;  // pixels at 96 DPI

}  // namespace

Mark EditorWindow::MarkAt(POINT at) const {
  const int x = ViewX(at);
  const int reach = layout_.Scale(kReach);
  const Annotations& annotations = document_.annotations();
  if (PtInRect(&layout_.labels, at) != FALSE) {
    // Finds the rightmost label whose line or name is under the mouse.
    Mark found;
    int found_x = 0;
    for (LONG index = 0; const Label& label : annotations.labels) {
      const int begin = view_.PixelOf(label.position);
      const bool under = begin - reach <= x && x < begin + painter_.FlagWidth(label.name, layout_);
      if (under && (found.kind == MarkKind::kNone || begin >= found_x)) {
        found = {MarkKind::kLabel, index};
        found_x = begin;
      }
      ++index;
    }
    return found;
  }
  if (PtInRect(&layout_.sections, at) != FALSE) {
    for (auto index = static_cast<LONG>(annotations.markers.size()); index-- > 0;) {
      const auto& section = annotations.markers[static_cast<std::size_t>(index)].section;
      if (view_.PixelOf(section.begin) - reach <= x && x <= view_.PixelOf(section.end) + reach) {
        return {MarkKind::kSection, index};
      }
    }
  }
  return {};
}

EditorWindow::Drag EditorWindow::HandleAt(const Mark& mark, POINT at) const {
  if (mark.kind == MarkKind::kNone) return Drag::kNone;
  if (mark.kind == MarkKind::kLabel) return Drag::kLabel;
  const auto& section =
      document_.annotations().markers[static_cast<std::size_t>(mark.index)].section;
  const int reach = layout_.Scale(kReach);
  if (std::abs(ViewX(at) - view_.PixelOf(section.begin)) <= reach) return Drag::kSectionBegin;
  if (std::abs(ViewX(at) - view_.PixelOf(section.end)) <= reach) return Drag::kSectionEnd;
  return Drag::kSection;
}

void EditorWindow::Press(POINT at, bool scrubs) {
  if (document_.frames() == 0 || transport_.IsRecording() || drag_ != Drag::kNone) return;
  SetFocus(window_);
  drag_from_ = drag_at_ = at;
  drag_origin_ = view_.origin();
  const std::int64_t frame = view_.FrameAt(ViewX(at));
  const bool in_names = at.y >= layout_.labels.top && at.y < layout_.sections.bottom;
  if (at.y >= layout_.strip.top - layout_.Scale(4)) {
    drag_ = Drag::kScroll;
    // A click beside the thumb moves the thumb's centre there.
    const RECT thumb = layout_.Thumb(view_);
    if (at.x < thumb.left || at.x >= thumb.right) {
      const double part = static_cast<double>(at.x - layout_.strip.left) /
                          std::max<LONG>(1, layout_.strip.right - layout_.strip.left);
      Scroll([&] {
        view_.ScrollTo(static_cast<std::int64_t>(part * static_cast<double>(view_.extent())) -
                       view_.width() / 2);
      });
      drag_origin_ = view_.origin();
    }
  } else if (in_names) {
    ChooseMark(MarkAt(at));
    if (job_) return;
    drag_ = HandleAt(mark_, at);
  } else if (scrubs) {
    drag_ = Drag::kScrub;
    alt_used_ = GetKeyState(VK_MENU) < 0;
    transport_.StartScrub(frame);
    shown_playhead_ = frame;
    InvalidatePosition(frame);
  } else {
    drag_ = Drag::kSelect;
    ChooseMark({});
    Select(GetKeyState(VK_SHIFT) < 0 ? anchor_ : frame, frame);
  }
  if (drag_ != Drag::kNone) SetCapture(window_);
  WatchTimer();
}

void EditorWindow::DragTo(POINT at) {
  drag_at_ = at;
  const std::int64_t frame = view_.FrameAt(std::clamp(ViewX(at), 0, view_.width()));
  switch (drag_) {
    case Drag::kNone:
      return;
    case Drag::kSelect: {
      const int beyond = std::min(0, ViewX(at)) + std::max(0, ViewX(at) - view_.width());
      if (beyond != 0) Scroll([&] { view_.ScrollBy(beyond); });
      return Select(anchor_, frame);
    }
    case Drag::kScrub:
      transport_.Scrub(frame);
      return ShowState();
    case Drag::kScroll: {
      const double scale = static_cast<double>(view_.extent()) /
                           std::max<LONG>(1, layout_.strip.right - layout_.strip.left);
      return Scroll([&] {
        view_.ScrollTo(drag_origin_ +
                       std::llround(scale * static_cast<double>(at.x - drag_from_.x)));
      });
    }
    default:
      break;
  }
  // A small movement during a click is not a drag.
  if (!preview_ && std::abs(at.x - drag_from_.x) < layout_.Scale(3)) return;
  preview_ = Moved(drag_, view_.FrameAt(ViewX(at)) - view_.FrameAt(ViewX(drag_from_)));
  InvalidateAll();
}

Annotations EditorWindow::Moved(Drag part, std::int64_t by) const {
  Annotations moved = document_.annotations();
  const std::int64_t end = document_.frames();
  const auto index = static_cast<std::size_t>(mark_.index);
  if (part == Drag::kLabel) {
    auto& position = moved.labels[index].position;
    position = std::clamp<std::int64_t>(position + by, 0, end);
    return moved;
  }
  auto& section = moved.markers[index].section;
  const std::int64_t length = section.end - section.begin;
  if (part == Drag::kSectionBegin) {
    section.begin = std::clamp<std::int64_t>(section.begin + by, 0, section.end - 1);
  } else if (part == Drag::kSectionEnd) {
    section.end = std::clamp<std::int64_t>(section.end + by, section.begin + 1,
                                           std::max(end, section.begin + 1));
  } else {
    section.begin =
        std::clamp<std::int64_t>(section.begin + by, 0, std::max<std::int64_t>(0, end - length));
    section.end = section.begin + length;
  }
  return moved;
}

void EditorWindow::StoreMoved(const Annotations& moved) {
  const Mark mark = mark_;
  const auto index = static_cast<std::size_t>(mark.index);
  if (mark.kind == MarkKind::kSection) {
    document_.SetSection("Move section", mark.index, moved.markers[index]);
  } else {
    document_.SetLabel("Move label", mark.index, moved.labels[index]);
  }
  ChooseMark(mark);
  message_ = document_.undo().UndoName();
  ShowState();
}

void EditorWindow::Release() {
  const Drag was = std::exchange(drag_, Drag::kNone);
  if (was == Drag::kNone) return;
  if (GetCapture() == window_) ReleaseCapture();
  if (was == Drag::kScrub) {
    const std::int64_t position = transport_.position();
    transport_.Stop();
    InvalidateAll();
    Select(position, position);
  }
  if (was == Drag::kSelect) transport_.Loop(selection());
  if (preview_) StoreMoved(*std::exchange(preview_, std::nullopt));
  WatchTimer();
  ShowState();
}

void EditorWindow::DoubleClick(POINT at) {
  if (document_.frames() == 0 || transport_.IsRecording()) return;
  const bool in_names = at.y >= layout_.labels.top && at.y < layout_.sections.bottom;
  const std::int64_t frame = view_.FrameAt(ViewX(at));
  if (in_names) {
    ChooseMark(MarkAt(at));
    if (mark_.kind != MarkKind::kNone) return Command(ID_RENAME);
    if (PtInRect(&layout_.labels, at) == FALSE) return;
    Select(frame, frame);
    return Command(ID_LABEL);
  }
  // On the scroll strip or with Alt, a double click acts like a second press.
  if (at.y >= layout_.lanes.bottom || GetKeyState(VK_MENU) < 0) {
    return Press(at, GetKeyState(VK_MENU) < 0);
  }
  const Range section = SectionAround(frame);
  Select(section.begin, section.end);
  transport_.Loop(selection());
}

void EditorWindow::Wheel(POINT at, int delta, bool zooms) {
  const double notches = static_cast<double>(delta) / WHEEL_DELTA;
  Scroll([&] {
    if (zooms) {
      view_.ZoomAt(std::clamp(ViewX(at), 0, view_.width()), std::pow(1.5, notches));
    } else {
      view_.ScrollBy(-std::llround(notches * view_.width() / 8));
    }
  });
}

}  // namespace marlinda::editor
