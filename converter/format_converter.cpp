#include "converter/format_converter.h"

#include <algorithm>
#include <limits>
#include <new>

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
    constexpr std::size_t kMaxSamples = std::numeric_limits<ULONG>::max() / sizeof(float);
    if (output_.size() > kMaxSamples) throw std::bad_alloc();
    SAFEARRAYBOUND bound = {static_cast<ULONG>(output_.size()), 0};
    SAFEARRAY* const ready = SafeArrayCreate(VT_R4, 1, &bound);
    if (ready == nullptr) throw std::bad_alloc();
    std::ranges::copy(output_, static_cast<float*>(ready->pvData));
    output_.clear();
    *ppsaAudioData = ready;
  });
}

MARLINDA_DEFINE_CLASS(CFormatConverter)

}  // namespace marlinda
