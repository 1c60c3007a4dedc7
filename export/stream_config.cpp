#include "export/stream_config.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace marlinda {

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
  // Room for the largest structure that filters use here, whatever the filter says.
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
