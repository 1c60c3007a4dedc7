// Ogg Vorbis files for benchmarks and tests.
#pragma once

#include <cstdint>
#include <vector>

namespace marlinda::testing {

// Chords with noise and pulses, encoded at a quality from -0.1 to 1.
std::vector<unsigned char> EncodeMusic(int channels, long samples_per_sec, float quality,
                                       std::int64_t frames);

}  // namespace marlinda::testing
