#include "export/wav_sample_writer.h"

#include <algorithm>
#include <array>
#include <bit>

#include "core/samples/sample_converter.h"

namespace marlinda {

// Floats go into the file as they lie in memory.
static_assert(std::endian::native == std::endian::little);

std::span<const std::byte> WavSampleWriter::Encode(std::span<const float> samples) {
  if (format_.is_float) return std::as_bytes(samples);
  const std::size_t size = samples.size() * PcmBytesPerSample(format_.bits);
  if (buffer_.size() < size) buffer_.resize(size);
  ConvertFloatToPcm(samples, buffer_, format_.bits);
  return std::span(buffer_).first(size);
}

void WavSampleWriter::Write(RiffChunkWriter& file, std::span<const float> samples,
                            std::size_t frames) {
  if (format_.BlockAlign() <= 0) return;
  const std::uint64_t size =
      std::uint64_t{frames} * static_cast<std::uint32_t>(format_.BlockAlign());
  const auto encoded = Encode(samples);
  const auto kept =
      encoded.first(static_cast<std::size_t>(std::min<std::uint64_t>(size, encoded.size())));
  file.Write(kept);

  static constexpr std::array<std::byte, 65536> kZeros = {};
  for (std::uint64_t missing = size - kept.size(); missing > 0;) {
    const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(missing, kZeros.size()));
    file.Write(std::span(kZeros).first(piece));
    missing -= piece;
  }
}

}  // namespace marlinda
