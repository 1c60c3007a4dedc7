// The speaker mask and the sample type identifier of an extensible wave format.
#pragma once

#include <array>
#include <cstdint>

namespace marlinda {

// Bits of the mask: front left 1, front right 2, front centre 4. One channel gets front centre or,
// if `mono_as_stereo_mask` is set, front left and right. Counts other than 1, 2, 6 and 8 get mask
// 0.
constexpr std::uint32_t ChannelMask(int channels, bool mono_as_stereo_mask) noexcept {
  switch (channels) {
    case 1:
      return mono_as_stereo_mask ? 0x3 : 0x4;
    case 2:
      return 0x3;
    case 6:
      return 0x3F;
    case 8:
      return 0xFF;
    default:
      return 0;
  }
}

// Returns {0000000t-0000-0010-8000-00AA00389B71}. t is the format tag: 1 for PCM, 3 for floats.
constexpr std::array<std::uint8_t, 16> SubFormatBytes(bool is_float) noexcept {
  const std::uint8_t tag = is_float ? 3 : 1;
  return {tag,  0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
          0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
}

}  // namespace marlinda
