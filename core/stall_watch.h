// Tells what goes on from what stands still, where nothing reports the difference.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>

namespace marlinda {

class StallWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // How long a lost device stands still before anybody says so: longer than a busy machine makes a
  // device wait.
  static constexpr std::chrono::seconds kPatience{5};
  // Between two looks no more than this is counted, so look more often. Whoever could not look,
  // because the process was stopped or the machine asleep, has not seen anything stand still.
  static constexpr std::chrono::seconds kLongestStep{1};

  // Notes the counter; for how long it has been seen to stand still.
  Clock::duration Look(std::uint64_t counter, Clock::time_point now) noexcept {
    if (counter_ == counter) {
      stalled_ +=
          std::clamp<Clock::duration>(now - last_look_, Clock::duration::zero(), kLongestStep);
    } else {
      stalled_ = Clock::duration::zero();
    }
    counter_ = counter;
    last_look_ = now;
    return stalled_;
  }

  // Begins afresh: the next look counts as a change.
  void Restart() noexcept { counter_.reset(); }

 private:
  std::optional<std::uint64_t> counter_;
  Clock::time_point last_look_;
  Clock::duration stalled_{};
};

}  // namespace marlinda
