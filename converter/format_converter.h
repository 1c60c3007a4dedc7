// CFormatConverter: converts sample rate and channel count for the audio connector.
#pragma once

#include <converter.h>

#include <memory>
#include <vector>

#include "converter/stream_converter.h"
#include "core/com_object.h"

namespace marlinda {

// One stream after the other: SetUp, then Convert for each block and GetOutput for what has become
// ready. The calls come from one thread at a time, whichever that is.
class CFormatConverter final : public Object<CFormatConverter, IFormatConverter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CFormatConverter;
  static constexpr bool kHasClassInfo = false;

  // E_INVALIDARG for formats that cannot be converted; the stream that was set up goes on. nMode is
  // not looked at: there is one way to convert here, the best.
  STDMETHODIMP SetUp(LONG nSourceSamplesPerSec, LONG nTargetSamplesPerSec, SHORT nSourceChannels,
                     SHORT nTargetChannels, LONG nMode) override;
  // E_UNEXPECTED before SetUp, E_INVALIDARG when the block is no array of floats. Any number of
  // samples, also none, and also part of a frame.
  STDMETHODIMP Convert(SAFEARRAY* psaAudioData) override;
  // An array of 0 samples when nothing is ready. E_UNEXPECTED before SetUp.
  STDMETHODIMP GetOutput(SAFEARRAY** ppsaAudioData) override;

 private:
  std::unique_ptr<StreamConverter> stream_;
  std::vector<float> output_;
};

}  // namespace marlinda
