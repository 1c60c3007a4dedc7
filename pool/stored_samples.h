// The layout of samples in the pool's audio file.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "core/samples/sample_converter.h"

namespace marlinda {

inline constexpr std::size_t kMaxKeptBytes = std::size_t{1} << 22;

// The widths that can be stored. Below 8 bits a sample would take no bytes.
constexpr bool IsStorable(int bits) noexcept { return bits >= 8 && bits <= 40; }

// Bytes per sample in the file. The codes have 1 to 4 bytes (see PcmBytesPerSample). At 12 bits,
// only the first half of a block's codes is stored. At 40 bits, zeros follow the codes.
constexpr std::int64_t StoredBytes(int bits) noexcept { return bits / 8; }

// Returns base + unit * count, the offset of an item in a file. Saturates if the sum does not fit
// in 64 bits. A unit below 1 counts as 0.
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

// Converts blocks between samples and their stored bytes. Requires IsStorable(bits). Reuses its
// buffer, because allocating a large buffer costs more than the conversion.
class StoredSamples {
 public:
  // Returns the bytes to store. At 32 bits these are the samples themselves. At other widths they
  // lie in the buffer and are valid until the next call.
  std::span<const std::byte> Encode(std::span<const float> samples, int bits) {
    if (bits == 32) return std::as_bytes(samples);
    const std::span<std::byte> stored = Prepare(samples.size(), bits);
    ConvertFloatToPcm(samples, buffer_, bits);
    const std::size_t codes = samples.size() * PcmBytesPerSample(bits);
    std::ranges::fill(std::span(buffer_).subspan(codes), std::byte{});
    return stored;
  }

  // Returns a buffer for the stored bytes of `count` samples, to be filled before Decode.
  std::span<std::byte> Prepare(std::size_t count, int bits) {
    const auto stored_bytes = static_cast<std::size_t>(StoredBytes(bits));
    buffer_.resize(count * std::max(PcmBytesPerSample(bits), stored_bytes));
    return std::span(buffer_).first(count * stored_bytes);
  }
  // Decodes the first `read` bytes of the buffer. The remaining samples become silence.
  void Decode(std::size_t read, std::span<float> samples, int bits) const {
    ConvertPcmToFloat(buffer_, samples, bits);
    const std::size_t decoded = std::min(samples.size(), read / PcmBytesPerSample(bits));
    std::ranges::fill(samples.subspan(decoded), 0.0F);
  }

  // Frees the buffer of an unusually large block.
  void Trim() noexcept {
    if (buffer_.capacity() > kMaxKeptBytes) std::vector<std::byte>().swap(buffer_);
  }

 private:
  std::vector<std::byte> buffer_;
};

}  // namespace marlinda
