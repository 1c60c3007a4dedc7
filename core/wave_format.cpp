#include "core/wave_format.h"

#include <cstring>

#include "core/extensible_rules.h"

namespace marlinda {

WAVEFORMATEXTENSIBLE MakeExtensibleFormat(const WAVEFORMATEX& source, bool is_float,
                                          bool mono_as_stereo_mask) noexcept {
  WAVEFORMATEXTENSIBLE format = {};
  format.Format = source;
  format.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
  format.Format.cbSize = 22;
  format.Samples.wValidBitsPerSample = source.wBitsPerSample;
  format.dwChannelMask = ChannelMask(source.nChannels, mono_as_stereo_mask);
  // A GUID lies in memory as it does in a file: Windows is little-endian.
  const auto sub_format = SubFormatBytes(is_float);
  static_assert(sizeof(format.SubFormat) == sub_format.size());
  std::memcpy(&format.SubFormat, sub_format.data(), sub_format.size());
  return format;
}

}  // namespace marlinda
