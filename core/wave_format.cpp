#include "core/wave_format.h"

#include <cstring>

namespace marlinda {
namespace {

// KSDATAFORMAT_SUBTYPE_PCM and KSDATAFORMAT_SUBTYPE_IEEE_FLOAT: the format tag followed by a fixed
// tail. Spelled out here so that no header has to be seen in the one place that defines
// identifiers.
constexpr GUID kSubtypePcm = {
    0x00000001, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID kSubtypeIeeeFloat = {
    0x00000003, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

constexpr DWORD ChannelMask(WORD channels, bool mono_as_stereo_mask) noexcept {
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

}  // namespace

WAVEFORMATEXTENSIBLE MakeExtensibleFormat(const WAVEFORMATEX& source, bool is_float,
                                          bool mono_as_stereo_mask) noexcept {
  WAVEFORMATEXTENSIBLE format = {};
  format.Format = source;
  format.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
  format.Format.cbSize = 22;
  format.Samples.wValidBitsPerSample = source.wBitsPerSample;
  format.dwChannelMask = ChannelMask(source.nChannels, mono_as_stereo_mask);
  format.SubFormat = is_float ? kSubtypeIeeeFloat : kSubtypePcm;
  return format;
}

}  // namespace marlinda
