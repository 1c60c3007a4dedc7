// The wave format that playback and recording ask a device for.
#pragma once

#include <windows.h>
// mmreg.h needs windows.h first.
#include <mmreg.h>

#include <cstring>

#include "core/extensible_rules.h"

namespace marlinda {

// 32 bits select IEEE float, and any other width selects PCM. Checks nothing, because opening a
// device fails for an unsupported format. nBlockAlign and nAvgBytesPerSec wrap on overflow.
inline WAVEFORMATEX DeviceFormat(LONG samples_per_sec, SHORT channels, SHORT bits) noexcept {
  WAVEFORMATEX format = {};
  format.wFormatTag = bits == 32 ? WAVE_FORMAT_IEEE_FLOAT : WAVE_FORMAT_PCM;
  format.nChannels = static_cast<WORD>(channels);
  format.nSamplesPerSec = static_cast<DWORD>(samples_per_sec);
  format.wBitsPerSample = static_cast<WORD>(bits);
  format.nBlockAlign = static_cast<WORD>(bits * channels / 8);
  format.nAvgBytesPerSec = format.nBlockAlign * format.nSamplesPerSec;
  return format;
}

inline bool IsFloat(const WAVEFORMATEX& format) noexcept {
  return format.wFormatTag == WAVE_FORMAT_IEEE_FLOAT;
}

// Returns `source` as a WAVEFORMATEXTENSIBLE (tag 0xFFFE, cbSize 22) in which all bits are valid.
// Playback sets `mono_as_stereo_mask`; recording does not.
inline WAVEFORMATEXTENSIBLE MakeExtensibleFormat(const WAVEFORMATEX& source, bool is_float,
                                                 bool mono_as_stereo_mask) noexcept {
  WAVEFORMATEXTENSIBLE format = {};
  format.Format = source;
  format.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
  format.Format.cbSize = 22;
  format.Samples.wValidBitsPerSample = source.wBitsPerSample;
  format.dwChannelMask = ChannelMask(source.nChannels, mono_as_stereo_mask);
  // A GUID has the same bytes in memory as in a file, because Windows is little-endian.
  const auto sub_format = SubFormatBytes(is_float);
  static_assert(sizeof(format.SubFormat) == sub_format.size());
  std::memcpy(&format.SubFormat, sub_format.data(), sub_format.size());
  return format;
}

// Returns false for formats that must not reach a device. Some drivers accept a format without
// channels and crash in the first write.
inline bool IsPlausible(const WAVEFORMATEX& format) noexcept {
  return format.nBlockAlign > 0 && static_cast<SHORT>(format.nChannels) > 0 &&
         static_cast<LONG>(format.nSamplesPerSec) > 0;
}

}  // namespace marlinda
