// How samples lie in the pool's files.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

namespace marlinda {

// Below 8 bits a sample would take no bytes, above 32 more than it has.
constexpr bool IsStorable(int bits) noexcept { return bits >= 8 && bits <= 32; }

// Bytes by which positions advance per sample. At widths between the usual ones this is less than
// what the sample's code takes: kept on purpose.
constexpr std::int64_t StoredBytes(int bits) noexcept { return bits / 8; }

// base + unit * count. Where that does not fit in 64 bits the result is the largest or smallest
// number, an offset that no file has. A unit below 1 counts as 0.
constexpr std::int64_t ByteOffset(std::int64_t base, std::int64_t unit,
                                  std::int64_t count) noexcept {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kZero = 0;
  if (unit < 1) return base;
  if (count > (kHighest - std::max(base, kZero)) / unit) return kHighest;
  if (count < (kLowest - std::min(base, kZero)) / unit) return kLowest;
  return base + unit * count;
}

}  // namespace marlinda
