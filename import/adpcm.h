// The two ADPCM codings of wave files: blocks that begin with full samples and keep each further
// one in four bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "import/sound_file_info.h"

namespace marlinda {

// Frames that a block of so many bytes holds. 0 when it is too short for its header.
std::size_t AdpcmFrames(Coding coding, std::size_t channels, std::size_t bytes) noexcept;

// Decodes the first frames of a block, as many as `samples` takes, interleaved. The block holds as
// many.
void DecodeAdpcm(Coding coding, std::size_t channels, std::span<const std::byte> block,
                 std::span<std::int16_t> samples) noexcept;

}  // namespace marlinda
