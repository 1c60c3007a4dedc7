// Converts the Vorbis decoder's floats to 16-bit samples.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marlinda {

// Rounds as the codec library does: to nearest, halves to even, clipped. As in the library's 16-bit
// decoding, a value beyond 32 bits or NaN becomes the lowest code.
std::int16_t VorbisCode(float sample) noexcept;

// Converts `frames` frames, one plane per channel, to interleaved codes.
void PackVorbisFrames(const float* const* planes, std::size_t channels, std::size_t frames,
                      std::int16_t* codes) noexcept;

}  // namespace marlinda
