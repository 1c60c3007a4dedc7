// Tells a sound device that works from one that was lost, which nothing reports: its calls go on
// succeeding while its counter stands still.
#pragma once

#include <chrono>
#include <cstdint>

namespace marlinda {

class DeviceWatch {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // Longer than a busy machine makes a device wait.
  static constexpr std::chrono::seconds kPatience{5};

  explicit DeviceWatch(Time start) : last_change_(start) {}

  // Notes the device's counter, which is not negative. True once it has stood still for longer than
  // the patience.
  bool IsLost(std::int64_t counter, Time now) {
    if (counter_ != counter) {
      counter_ = counter;
      last_change_ = now;
    }
    return now - last_change_ > kPatience;
  }

 private:
  std::int64_t counter_ = -1;
  Time last_change_;
};

// Playing takes at least as long as the audio lasts. When it has ended much sooner, the device did
// not play it.
inline bool EndedTooSoon(std::int64_t frames, std::int32_t rate,
                         std::chrono::duration<double> took) {
  constexpr double kSlackSeconds = 0.5;
  return took.count() + kSlackSeconds < static_cast<double>(frames) / rate;
}

}  // namespace marlinda
