// The extensible wave format that devices and WAV files use for more than two channels.
#pragma once

#include <windows.h>
// After windows.h.
#include <mmreg.h>

namespace marlinda {

// Turns `source` into a WAVEFORMATEXTENSIBLE (tag 0xFFFE, cbSize 22) whose valid bits are the
// source's bits. The channel mask is 0x3F for 6 and 0xFF for 8 channels, front left and right for
// 2, and for 1 either that too (`mono_as_stereo_mask`, what playback announces) or front centre;
// any other count has mask 0.
WAVEFORMATEXTENSIBLE MakeExtensibleFormat(const WAVEFORMATEX& source, bool is_float,
                                          bool mono_as_stereo_mask) noexcept;

}  // namespace marlinda
