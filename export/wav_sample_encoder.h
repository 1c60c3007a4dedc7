// WavSampleEncoder: turns float blocks into the sample bytes of a WAV file.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "export/wav_layout.h"

namespace marlinda {

// A block of n frames is n * BlockAlign() bytes, so that the header's sizes hold whatever the
// width. That is what samples of 8, 16, 24 and 32 bits take. For other widths the bytes are cut or
// followed by zeros: 12 bits convert to 2-byte samples of which a block keeps the first half, and
// floats announced with 16 bits keep the first half of the raw floats. A negative block align gives
// nothing.
class WavSampleEncoder {
 public:
  explicit WavSampleEncoder(const WavFormat& format) noexcept : format_(format) {}

  // The bytes of `frames` frames, valid until the next call; `samples` are their floats,
  // interleaved. Throws std::bad_alloc.
  std::span<const std::byte> Encode(std::span<const float> samples, std::size_t frames);

 private:
  WavFormat format_;
  std::vector<std::byte> buffer_;
};

}  // namespace marlinda
