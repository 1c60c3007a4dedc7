// The 16-bit samples of decoded Vorbis, out of the decoder's floats.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marlinda {

// The code of a sample as the codec library rounds it: to the nearest, halves to even, clipped.
// A value beyond 32 bits, NaN included, becomes the lowest code, as in the library's own 16-bit
// decoding.
std::int16_t VorbisCode(float sample) noexcept;

// The codes of `frames` frames, of which each channel's samples lie in a plane of their own,
// interleaved.
void PackVorbisFrames(const float* const* planes, std::size_t channels, std::size_t frames,
                      std::int16_t* codes) noexcept;

}  // namespace marlinda
