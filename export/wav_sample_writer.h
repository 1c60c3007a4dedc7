// WavSampleWriter: turns float blocks into the sample bytes of a WAV file.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "export/riff_chunk_writer.h"
#include "export/wav_layout.h"

namespace marlinda {

// A block of n frames always takes n * BlockAlign() bytes of the file. That is what its samples
// take in the widths 8, 16, 24 and 32; for other widths the bytes of the block are cut or followed
// by zeros. So 12 bits convert to 2-byte samples of which a block keeps the first half, and floats
// announced with 16 bits keep the first half of the raw floats: deliberate, the sizes that the
// header announces hold whatever the width. A negative block align writes nothing.
class WavSampleWriter {
 public:
  explicit WavSampleWriter(const WavFormat& format) noexcept : format_(format) {}

  // Writes `frames` frames; `samples` are their floats, interleaved.
  void Write(RiffChunkWriter& file, std::span<const float> samples, std::size_t frames);

 private:
  std::span<const std::byte> Encode(std::span<const float> samples);

  WavFormat format_;
  std::vector<std::byte> buffer_;
};

}  // namespace marlinda
