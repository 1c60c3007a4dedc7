// WavSampleEncoder: turns float blocks into the sample bytes of a WAV file.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <limits>
#include <new>
#include <span>
#include <vector>

#include "core/samples/sample_converter.h"
#include "export/wav_layout.h"

namespace marlinda {

// A block of n frames has n * BlockAlign() bytes, so that the header's sizes are right at every
// width. PCM of 8, 16, 24 and 32 bits and 32-bit floats fit exactly. Other blocks are truncated or
// padded with zeros. For example, 12-bit PCM has 2 bytes per sample, but BlockAlign() counts 1. A
// block then loses its second half. Floats have 4 bytes at every width, so a block of floats at 16
// bits loses its second half, too. A block align below 1 gives no bytes.
class WavSampleEncoder {
 public:
  explicit WavSampleEncoder(const WavFormat& format) noexcept : format_(format) {}

  // Converts `frames` frames of interleaved `samples`. The returned bytes are valid until the next
  // call, and only while `samples` exists. Throws std::bad_alloc.
  std::span<const std::byte> Encode(std::span<const float> samples, std::size_t frames) {
    if (format_.BlockAlign() <= 0) return {};
    const auto block_align = static_cast<std::size_t>(format_.BlockAlign());
    if (frames > std::numeric_limits<std::size_t>::max() / block_align) throw std::bad_alloc();
    const std::size_t size = frames * block_align;
    const auto raw = std::as_bytes(samples);
    if (format_.is_float && raw.size() >= size) return raw.first(size);

    const std::size_t encoded =
        format_.is_float ? raw.size() : samples.size() * PcmBytesPerSample(format_.bits);
    if (buffer_.size() < std::max(size, encoded)) buffer_.resize(std::max(size, encoded));
    if (format_.is_float) {
      // The file and the memory have the same byte order.
      static_assert(std::endian::native == std::endian::little);
      std::ranges::copy(raw, buffer_.begin());
    } else {
      ConvertFloatToPcm(samples, buffer_, format_.bits);
    }
    const auto bytes = std::span(buffer_).first(size);
    if (size > encoded) std::ranges::fill(bytes.subspan(encoded), std::byte{0});
    return bytes;
  }

 private:
  WavFormat format_;
  std::vector<std::byte> buffer_;
};

}  // namespace marlinda
