// Decodes IMA ADPCM and Microsoft ADPCM of wave files. A block begins with uncompressed samples.
// Each later sample takes four bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "import/sound_file_info.h"

namespace marlinda {

// Returns the frames in a block of `bytes` bytes, or 0 if the block is too short for its header.
std::size_t AdpcmFrames(Coding coding, std::size_t channels, std::size_t bytes) noexcept;

// Fills `samples` with the first frames of a block, interleaved. The block must hold enough frames.
void DecodeAdpcm(Coding coding, std::size_t channels, std::span<const std::byte> block,
                 std::span<std::int16_t> samples) noexcept;

}  // namespace marlinda
