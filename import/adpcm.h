// Decodes the two ADPCM codings of wave files. A block begins with whole samples; each later sample
// takes four bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "import/sound_file_info.h"

namespace marlinda {

// Returns the frames in a block of `bytes` bytes, or 0 if it is too short for its header.
std::size_t AdpcmFrames(Coding coding, std::size_t channels, std::size_t bytes) noexcept;

// Decodes the first frames of a block into `samples`, interleaved, until `samples` is full. The
// block must hold that many frames.
void DecodeAdpcm(Coding coding, std::size_t channels, std::span<const std::byte> block,
                 std::span<std::int16_t> samples) noexcept;

}  // namespace marlinda
