// The position that the keys of "marlinda scrub" move.
#pragma once

#include <cstdint>

namespace marlinda {

enum class CursorMove { kBack, kForward, kFarBack, kFarForward, kStart, kEnd };

class ScrubCursor {
 public:
  // `frames` and `rate` are positive.
  ScrubCursor(std::int64_t frames, std::int32_t rate) : frames_(frames), rate_(rate) {}

  std::int64_t position() const { return position_; }

  // A tenth of a second back or forward, far ones a second; stays inside the audio.
  void Move(CursorMove move);

 private:
  std::int64_t frames_;
  std::int32_t rate_;
  std::int64_t position_ = 0;
};

}  // namespace marlinda
