// 64-bit arithmetic on frame positions without undefined overflow. Use the wrapping functions for
// lengths and offsets, and the saturating functions for bounds. If the end of a range saturates,
// the range means "to the end".
#pragma once

#include <cstdint>
#include <limits>

namespace marlinda {

constexpr std::int64_t WrappingAdd(std::int64_t a, std::int64_t b) noexcept {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

constexpr std::int64_t WrappingSubtract(std::int64_t a, std::int64_t b) noexcept {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

constexpr std::int64_t SaturatingAdd(std::int64_t a, std::int64_t b) noexcept {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  if (b > 0 && a > kMax - b) return kMax;
  if (b < 0 && a < kMin - b) return kMin;
  return a + b;
}

constexpr std::int64_t SaturatingSubtract(std::int64_t a, std::int64_t b) noexcept {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  if (b < 0 && a > kMax + b) return kMax;
  if (b > 0 && a < kMin + b) return kMin;
  return a - b;
}

}  // namespace marlinda
