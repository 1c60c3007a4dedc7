#include "host/scrub_cursor.h"

#include <algorithm>

namespace marlinda {

void ScrubCursor::Move(CursorMove move) {
  // At least a frame, so that every key moves.
  const std::int64_t step = std::max(1, rate_ / 10);
  switch (move) {
    case CursorMove::kBack:
      position_ -= step;
      break;
    case CursorMove::kForward:
      position_ += step;
      break;
    case CursorMove::kFarBack:
      position_ -= rate_;
      break;
    case CursorMove::kFarForward:
      position_ += rate_;
      break;
    case CursorMove::kStart:
      position_ = 0;
      break;
    case CursorMove::kEnd:
      position_ = frames_;
      break;
  }
  position_ = std::clamp(position_, std::int64_t{0}, frames_);
}

}  // namespace marlinda
