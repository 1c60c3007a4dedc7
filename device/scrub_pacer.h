// Decides when the scrubber computes its next pass (half a block). A pass that is computed late
// contains the newest position, but must not come after the device has played all earlier passes.
#pragma once

#include <chrono>
#include <optional>

namespace marlinda {

class ScrubPacer {
 public:
  using Clock = std::chrono::steady_clock;

  // `pass` is the duration of one pass (half a block).
  explicit ScrubPacer(Clock::duration pass) noexcept : pass_(pass) {}

  // Returns when to compute the next pass: `reserve_` before the estimated end of the queued audio,
  // because threads can run late. If that time has passed, compute the pass at once.
  Clock::time_point Due() const noexcept {
    return dry_ && reserve_ <= kMaxReserve ? *dry_ - reserve_ : Clock::time_point::min();
  }

  // If the device has played everything, call this before a pass (half a block) is written. Each
  // interruption of the sound increases the reserve. After a few interruptions, the estimate `dry_`
  // may be wrong, for example because of a wrong sample rate. Due then ignores it and makes all
  // passes due at once, and the writer sets the pace by blocking.
  void RanDry(Clock::time_point now) noexcept {
    if (dry_) reserve_ += kStep;
    dry_ = now;
  }

  // Call when a pass has been written. `waited` is the time that the writer blocked.
  void Written(Clock::duration waited) noexcept {
    if (!dry_) return;
    *dry_ += pass_;
    // A long wait shows a full queue, so the device plays more slowly than estimated.
    if (waited > kStep) *dry_ += kStep;
  }

 private:
  static constexpr std::chrono::milliseconds kStep{20};
  static constexpr std::chrono::milliseconds kMaxReserve{100};

  Clock::duration pass_;
  Clock::duration reserve_ = std::chrono::milliseconds(30);
  // Estimates when the device has played everything. Empty before the first pass.
  std::optional<Clock::time_point> dry_;
};

}  // namespace marlinda
