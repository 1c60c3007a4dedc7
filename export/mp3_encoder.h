// Finds the MP3 encoders among the audio compressors of the system.
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include <functional>

#include "core/com_ptr.h"

namespace marlinda {

// Calls `visit` with a fresh filter of each encoder that puts out MPEG Layer 3, in the system's
// order, until it returns true.
void ForEachMp3Encoder(const std::function<bool(IBaseFilter*)>& visit);

// The first of them; null when there is none.
ComPtr<IBaseFilter> CreateMp3Encoder();

// True for the wave format tag of MPEG Layer 3.
bool IsMp3(const AM_MEDIA_TYPE& type) noexcept;

}  // namespace marlinda
