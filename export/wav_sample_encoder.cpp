#include "export/wav_sample_encoder.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <new>

#include "core/samples/sample_converter.h"

namespace marlinda {

// Floats go into the file as they lie in memory.
static_assert(std::endian::native == std::endian::little);

std::span<const std::byte> WavSampleEncoder::Encode(std::span<const float> samples,
                                                    std::size_t frames) {
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
    std::ranges::copy(raw, buffer_.begin());
  } else {
    ConvertFloatToPcm(samples, buffer_, format_.bits);
  }
  const auto bytes = std::span(buffer_).first(size);
  if (size > encoded) std::ranges::fill(bytes.subspan(encoded), std::byte{0});
  return bytes;
}

}  // namespace marlinda
