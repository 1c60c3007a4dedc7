// How samples lie in the pool's files.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "core/samples/sample_converter.h"

namespace marlinda {

// Below 8 bits a sample would take no bytes; above 40 there is nothing that anybody could mean.
constexpr bool IsStorable(int bits) noexcept { return bits >= 8 && bits <= 40; }

// Bytes by which positions advance per sample. At widths between the usual ones this is less than
// what the sample's code takes, and at 40 bits more: kept on purpose.
constexpr std::int64_t StoredBytes(int bits) noexcept { return bits / 8; }

// What `count` samples take while they are converted: room for their codes and for what is stored.
inline std::size_t ConversionBytes(std::size_t count, int bits) noexcept {
  return count * std::max(PcmBytesPerSample(bits), static_cast<std::size_t>(StoredBytes(bits)));
}

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
