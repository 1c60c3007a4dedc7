#include "converter/format_converter.h"

#include <algorithm>

#include "core/sample_array.h"

namespace marlinda {

STDMETHODIMP CFormatConverter::SetUp(LONG nSourceSamplesPerSec, LONG nTargetSamplesPerSec,
                                     SHORT nSourceChannels, SHORT nTargetChannels, LONG) {
  const StreamConverter::Format source = {nSourceSamplesPerSec, nSourceChannels};
  const StreamConverter::Format target = {nTargetSamplesPerSec, nTargetChannels};
  if (!StreamConverter::CanConvert(source, target)) return E_INVALIDARG;
  return ComCall([&] {
    stream_ = std::make_unique<StreamConverter>(source, target);
    output_.clear();
  });
}

STDMETHODIMP CFormatConverter::Convert(SAFEARRAY* psaAudioData) {
  if (stream_ == nullptr) return E_UNEXPECTED;
  return ComCall([&] {
    SampleArrayView block;
    Check(block.Lock(psaAudioData));
    stream_->Convert(block.samples(), output_);
  });
}

STDMETHODIMP CFormatConverter::GetOutput(SAFEARRAY** ppsaAudioData) {
  if (ppsaAudioData == nullptr) return E_POINTER;
  *ppsaAudioData = nullptr;
  if (stream_ == nullptr) return E_UNEXPECTED;
  return ComCall([&] {
    SampleArray ready(output_.size());
    std::ranges::copy(output_, ready.samples().begin());
    output_.clear();
    *ppsaAudioData = ready.Detach();
  });
}

MARLINDA_DEFINE_CLASS(CFormatConverter)

}  // namespace marlinda
