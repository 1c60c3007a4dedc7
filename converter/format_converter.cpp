// CFormatConverter: converts sample rate and channel count for the audio connector.
#include <converter.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "converter/stream_converter.h"
#include "core/com_object.h"
#include "core/sample_array.h"

namespace marlinda {

// For each stream, call SetUp once, then Convert for each block and GetOutput for the samples that
// are ready. Different threads may call the methods, but only one thread at a time.
class CFormatConverter final : public Object<CFormatConverter, IFormatConverter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CFormatConverter;
  static constexpr bool kHasClassInfo = false;

  // Fails with E_INVALIDARG for formats that cannot be converted. An earlier stream then continues.
  // Ignores nMode.
  STDMETHODIMP SetUp(LONG nSourceSamplesPerSec, LONG nTargetSamplesPerSec, SHORT nSourceChannels,
                     SHORT nTargetChannels, LONG) override {
    const StreamConverter::Format source = {nSourceSamplesPerSec, nSourceChannels};
    const StreamConverter::Format target = {nTargetSamplesPerSec, nTargetChannels};
    if (!StreamConverter::CanConvert(source, target)) return E_INVALIDARG;
    return ComCall([&] {
      stream_ = std::make_unique<StreamConverter>(source, target);
      output_.clear();
    });
  }
  // Fails with E_UNEXPECTED before SetUp and with E_INVALIDARG unless the elements are floats.
  // Accepts any number of samples, even 0 or a part of a frame.
  STDMETHODIMP Convert(SAFEARRAY* psaAudioData) override {
    if (stream_ == nullptr) return E_UNEXPECTED;
    return ComCall([&] {
      SampleArrayView block;
      Check(block.Lock(psaAudioData));
      stream_->Convert(block.samples(), output_);
    });
  }
  // Returns an array of 0 samples if nothing is ready. Fails with E_UNEXPECTED before SetUp.
  STDMETHODIMP GetOutput(SAFEARRAY** ppsaAudioData) override {
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

 private:
  std::unique_ptr<StreamConverter> stream_;
  std::vector<float> output_;
};

MARLINDA_DEFINE_CLASS(CFormatConverter)

}  // namespace marlinda
