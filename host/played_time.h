// Whether a playback has lasted as long as its audio.
#pragma once

#include <chrono>
#include <cstdint>

namespace marlinda {

// Playing takes at least as long as the audio lasts. When it has ended much sooner, the device did
// not play it.
inline bool EndedTooSoon(std::int64_t frames, std::int32_t rate,
                         std::chrono::duration<double> took) {
  constexpr double kSlackSeconds = 0.5;
  return took.count() + kSlackSeconds < static_cast<double>(frames) / rate;
}

}  // namespace marlinda
