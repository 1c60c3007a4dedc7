// The MP3 encoders among the system's audio compressors, and their capabilities.
#pragma once

#include <functional>

#include "core/com_ptr.h"
#include "dshow/graph_filter.h"

namespace marlinda {

// Calls `visit` with a new filter of each MPEG Layer 3 encoder, in the system's order and then the
// engine's own, until `visit` returns true.
void ForEachMp3Encoder(const std::function<bool(IBaseFilter*)>& visit);

// Creates the first MP3 encoder. Null if there is none.
ComPtr<IBaseFilter> CreateMp3Encoder();

// True if the wave format tag is MPEG Layer 3.
bool IsMp3(const AM_MEDIA_TYPE& type) noexcept;

// The IAMStreamConfig of the first output pin that has one. Null if none has, or for a null
// encoder.
ComPtr<IAMStreamConfig> FindStreamConfig(IBaseFilter* encoder);

// Calls `visit` with the media type of each capability; not at all for a null `config`.
void ForEachCapability(IAMStreamConfig* config,
                       const std::function<void(const AM_MEDIA_TYPE&)>& visit);

int BitRateKbit(const WAVEFORMATEX& format) noexcept;

}  // namespace marlinda
