// Finds the MP3 encoders of the system and of the engine, and their capabilities.
#pragma once

#include <functional>

#include "core/com_ptr.h"
#include "dshow/graph_filter.h"

namespace marlinda {

// Calls `visit` with a new filter of each MPEG Layer 3 encoder until `visit` returns true. The
// system's encoders come first, in the system's order, and the engine's own encoder last.
void ForEachMp3Encoder(const std::function<bool(IBaseFilter*)>& visit);

// True if the wave format tag is MPEG Layer 3.
bool IsMp3(const AM_MEDIA_TYPE& type) noexcept;

// Returns the IAMStreamConfig of the first output pin that has this interface. Returns null if no
// pin has it, or if `encoder` is null.
ComPtr<IAMStreamConfig> FindStreamConfig(IBaseFilter* encoder);

// Calls `visit` with the media type of each capability. Does nothing if `config` is null.
void ForEachCapability(IAMStreamConfig* config,
                       const std::function<void(const AM_MEDIA_TYPE&)>& visit);

int BitRateKbit(const WAVEFORMATEX& format) noexcept;

}  // namespace marlinda
