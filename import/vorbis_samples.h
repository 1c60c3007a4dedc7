// Converts the Vorbis decoder's floats to 16-bit samples.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marlinda {

// Scales, rounds to nearest (halves to even) and clips, as libvorbisfile does when it decodes to 16
// bits. NaN and scaled values that do not fit in 32 bits become the lowest code.
std::int16_t VorbisCode(float sample) noexcept;

// Converts `frames` frames from one plane per channel to interleaved codes.
void PackVorbisFrames(const float* const* planes, std::size_t channels, std::size_t frames,
                      std::int16_t* codes) noexcept;

}  // namespace marlinda
