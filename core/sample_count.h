// Converts a frame count to another sample rate.
#pragma once

#include <cstdint>
#include <limits>

namespace marlinda {

// Returns count * target_rate / source_rate, truncated toward zero. A result that does not fit in
// 64 bits saturates. Returns `count` if a rate is not positive.
constexpr std::int64_t ConvertSampleCount(std::int64_t count, std::int32_t source_rate,
                                          std::int32_t target_rate) noexcept {
  if (source_rate <= 0 || target_rate <= 0) return count;
  // Splits off whole multiples of the source rate, so that the rest's product fits in 62 bits.
  const std::int64_t whole = count / source_rate;
  const std::int64_t rest = count % source_rate * target_rate / source_rate;
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  if (whole > 0 && whole > (kMax - rest) / target_rate) return kMax;
  if (whole < 0 && whole < (kMin - rest) / target_rate) return kMin;
  return whole * target_rate + rest;
}

}  // namespace marlinda
