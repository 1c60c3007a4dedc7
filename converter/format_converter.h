// CFormatConverter: converts sample rate and channel count for the audio connector.
#pragma once

#include <converter.h>

#include <memory>
#include <vector>

#include "converter/stream_converter.h"
#include "core/com_object.h"

namespace marlinda {

// For each stream: SetUp, then Convert for each block and GetOutput for the samples that are ready.
// The calls come from one thread at a time, not always the same.
class CFormatConverter final : public Object<CFormatConverter, IFormatConverter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CFormatConverter;
  static constexpr bool kHasClassInfo = false;

  // E_INVALIDARG for formats that cannot be converted; the stream that was set up continues. nMode
  // is ignored.
  STDMETHODIMP SetUp(LONG nSourceSamplesPerSec, LONG nTargetSamplesPerSec, SHORT nSourceChannels,
                     SHORT nTargetChannels, LONG nMode) override;
  // E_UNEXPECTED before SetUp, E_INVALIDARG for another array than one of floats. Takes any number
  // of samples, none and part of a frame included.
  STDMETHODIMP Convert(SAFEARRAY* psaAudioData) override;
  // An array of 0 samples when nothing is ready. E_UNEXPECTED before SetUp.
  STDMETHODIMP GetOutput(SAFEARRAY** ppsaAudioData) override;

 private:
  std::unique_ptr<StreamConverter> stream_;
  std::vector<float> output_;
};

}  // namespace marlinda
