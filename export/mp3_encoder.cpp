#include "export/mp3_encoder.h"

#include <converter.h>
#include <oleauto.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace marlinda {
namespace {

// The system lists ACM codecs as compressors, with the format tag as a property. Reads this
// property, not the filter's formats, which it lists only while its input is connected.
bool IsListedAsMp3(IMoniker* moniker) {
  ComPtr<IPropertyBag> properties;
  if (FAILED(moniker->BindToStorage(nullptr, nullptr, __uuidof(IPropertyBag),
                                    reinterpret_cast<void**>(properties.GetAddressOf())))) {
    return false;
  }
  VARIANT tag;
  VariantInit(&tag);
  const bool is_mp3 = properties->Read(L"AcmId", &tag, nullptr) == S_OK && tag.vt == VT_I4 &&
                      tag.lVal == WAVE_FORMAT_MPEGLAYER3;
  VariantClear(&tag);
  return is_mp3;
}

bool OffersMp3(IPin* pin) {
  bool found = false;
  ForEachCapability(TryQuery<IAMStreamConfig>(pin).Get(),
                    [&](const AM_MEDIA_TYPE& type) { found = found || IsMp3(type); });
  ComPtr<IEnumMediaTypes> types;
  if (found || FAILED(pin->EnumMediaTypes(types.GetAddressOf())) || !types) return found;
  AM_MEDIA_TYPE* type = nullptr;
  while (!found && types->Next(1, &type, nullptr) == S_OK) {
    const MediaType owner(type);
    found = IsMp3(*type);
  }
  return found;
}

bool OffersMp3(IBaseFilter* filter) {
  bool found = false;
  ForEachPin(filter, PINDIR_OUTPUT, [&](IPin* pin) { return found = OffersMp3(pin); });
  return found;
}

// Visits the MP3 encoders that are registered as audio compressors. Returns true if `visit` has
// returned true for one of them.
bool ForEachListedMp3Encoder(const std::function<bool(IBaseFilter*)>& visit) {
  ComPtr<ICreateDevEnum> devices;
  ComPtr<IEnumMoniker> monikers;
  if (FAILED(CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER,
                              __uuidof(ICreateDevEnum),
                              reinterpret_cast<void**>(devices.GetAddressOf()))) ||
      devices->CreateClassEnumerator(CLSID_AudioCompressorCategory, monikers.GetAddressOf(), 0) !=
          S_OK) {
    return false;  // S_FALSE means an empty category
  }
  ComPtr<IMoniker> moniker;
  while (monikers->Next(1, moniker.ReleaseAndGetAddressOf(), nullptr) == S_OK) {
    ComPtr<IBaseFilter> filter;
    if (FAILED(moniker->BindToObject(nullptr, nullptr, __uuidof(IBaseFilter),
                                     reinterpret_cast<void**>(filter.GetAddressOf())))) {
      continue;
    }
    if (!IsListedAsMp3(moniker.Get()) && !OffersMp3(filter.Get())) continue;
    if (visit(filter.Get())) return true;
  }
  return false;
}

}  // namespace

void ForEachMp3Encoder(const std::function<bool(IBaseFilter*)>& visit) {
  if (ForEachListedMp3Encoder(visit)) return;
  // A program's manifest can make the engine's encoder available without registration.
  ComPtr<IBaseFilter> ours;
  if (SUCCEEDED(CreateInstance(CLSID_CMp3Encoder, ours))) visit(ours.Get());
}

bool IsMp3(const AM_MEDIA_TYPE& type) noexcept {
  const WAVEFORMATEX* const format = WaveFormatOf(type);
  return format != nullptr && format->wFormatTag == WAVE_FORMAT_MPEGLAYER3;
}

ComPtr<IAMStreamConfig> FindStreamConfig(IBaseFilter* encoder) {
  ComPtr<IAMStreamConfig> config;
  ForEachPin(encoder, PINDIR_OUTPUT, [&](IPin* pin) {
    config = TryQuery<IAMStreamConfig>(pin);
    return config != nullptr;
  });
  return config;
}

void ForEachCapability(IAMStreamConfig* config,
                       const std::function<void(const AM_MEDIA_TYPE&)>& visit) {
  int count = 0;
  int size = 0;
  if (config == nullptr || FAILED(config->GetNumberOfCapabilities(&count, &size))) return;
  // Has room for the largest structure in use, even if the filter reports a smaller size.
  std::vector<BYTE> details(std::max<std::size_t>(
      static_cast<std::size_t>(std::max(size, 0)),
      std::max(sizeof(AUDIO_STREAM_CONFIG_CAPS), sizeof(VIDEO_STREAM_CONFIG_CAPS))));
  for (int index = 0; index < count; ++index) {
    AM_MEDIA_TYPE* type = nullptr;
    if (config->GetStreamCaps(index, &type, details.data()) != S_OK || type == nullptr) continue;
    const MediaType owner(type);
    visit(*type);
  }
}

int BitRateKbit(const WAVEFORMATEX& format) noexcept {
  return static_cast<int>(std::uint64_t{format.nAvgBytesPerSec} * 8 / 1000);
}

}  // namespace marlinda
