// The MP3 encoders among the audio compressors of the system, and the capabilities of one.
#pragma once

#include <functional>

#include "core/com_ptr.h"
#include "dshow/graph_filter.h"

namespace marlinda {

// Calls `visit` with a fresh filter of each encoder that puts out MPEG Layer 3, in the system's
// order and then ours, until it returns true.
void ForEachMp3Encoder(const std::function<bool(IBaseFilter*)>& visit);

// The first of them; null when there is none.
ComPtr<IBaseFilter> CreateMp3Encoder();

// True for the wave format tag of MPEG Layer 3.
bool IsMp3(const AM_MEDIA_TYPE& type) noexcept;

// The IAMStreamConfig of the first output pin that has one; null when none has, or without filter.
ComPtr<IAMStreamConfig> FindStreamConfig(IBaseFilter* encoder);

// Calls `visit` with the media type of each capability; none for a null `config`.
void ForEachCapability(IAMStreamConfig* config,
                       const std::function<void(const AM_MEDIA_TYPE&)>& visit);

int BitRateKbit(const WAVEFORMATEX& format) noexcept;

}  // namespace marlinda
