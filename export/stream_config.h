// The capabilities of an encoder filter: its IAMStreamConfig and the media types in it.
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>
#include <mmreg.h>

#include <functional>

#include "core/com_ptr.h"
#include "dshow/filter_graph.h"
#include "dshow/graph_filter.h"

namespace marlinda {

// The IAMStreamConfig of the first output pin that has one; null when none has, or without filter.
ComPtr<IAMStreamConfig> FindStreamConfig(IBaseFilter* encoder);

// Calls `visit` with the media type of each capability; none for a null `config`.
void ForEachCapability(IAMStreamConfig* config,
                       const std::function<void(const AM_MEDIA_TYPE&)>& visit);

int BitRateKbit(const WAVEFORMATEX& format) noexcept;

}  // namespace marlinda
