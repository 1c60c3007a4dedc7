// What an encoder filter can do: its IAMStreamConfig, the media types in it, and their owner.
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>
#include <mmreg.h>

#include <functional>

#include "core/com_ptr.h"

namespace marlinda {

// Calls `visit` with each pin of the filter until it returns true.
void ForEachPin(IBaseFilter* filter, PIN_DIRECTION direction,
                const std::function<bool(IPin*)>& visit);

// The IAMStreamConfig of the first output pin that has one; null when none has, or without filter.
ComPtr<IAMStreamConfig> FindStreamConfig(IBaseFilter* encoder);

// Calls `visit` with the media type of each capability; none for a null `config`.
void ForEachCapability(IAMStreamConfig* config,
                       const std::function<void(const AM_MEDIA_TYPE&)>& visit);

// The wave format in a media type; null when its format block is too short for one.
const WAVEFORMATEX* WaveFormatOf(const AM_MEDIA_TYPE& type) noexcept;

int BitRateKbit(const WAVEFORMATEX& format) noexcept;

// Owns a media type that came from a filter.
class MediaType {
 public:
  explicit MediaType(AM_MEDIA_TYPE* type) noexcept : type_(type) {}
  MediaType(const MediaType&) = delete;
  MediaType& operator=(const MediaType&) = delete;
  ~MediaType();

 private:
  AM_MEDIA_TYPE* type_;
};

// Frees the format block and the reference of a media type, not the structure itself.
void FreeContents(AM_MEDIA_TYPE& type) noexcept;

}  // namespace marlinda
