// CNullReader: a source of silence of a given length and format.
#include <marlinda.h>

#include <algorithm>

#include "core/com_object.h"
#include "core/constants.h"
#include "core/sample_array.h"

namespace marlinda {

// Reads succeed with silence at any position, also before the start and past the end. The sample
// count only informs the client. Sample count, rate and channels are 0 before Create.
class CNullReader final : public Object<CNullReader, INullReader, IAudioReader, IPeakReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CNullReader;

  // INullReader
  STDMETHODIMP Create(__int64 nSampleCount, LONG nSamplesPerSec, SHORT nChannels) override {
    sample_count_ = nSampleCount;
    samples_per_sec_ = nSamplesPerSec;
    channels_ = nChannels;
    return S_OK;
  }

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64, SAFEARRAY* psaAudioData) override {
    return FillWithSilence(psaAudioData);
  }
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return SetOut(pnSamplesPerSec, samples_per_sec_, pnChannels, channels_);
  }
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override {
    return SetOut(pnSamples, sample_count_);
  }
  STDMETHODIMP OpenDevice() override { return S_OK; }
  STDMETHODIMP CloseDevice() override { return S_OK; }

  // IPeakReader
  STDMETHODIMP ReadPeaks(__int64, SAFEARRAY* psaPeakData) override {
    return FillWithSilence(psaPeakData);
  }
  STDMETHODIMP GetSamplesPerPeak(LONG* pnSamplesPerPeak) override {
    return SetOut(pnSamplesPerPeak, kFramesPerPeak);
  }

 private:
  static HRESULT FillWithSilence(SAFEARRAY* array) noexcept {
    SampleArrayView view;
    const HRESULT hr = view.Lock(array);
    if (SUCCEEDED(hr)) std::ranges::fill(view.samples(), 0.0F);
    return hr;
  }

  __int64 sample_count_ = 0;
  LONG samples_per_sec_ = 0;
  SHORT channels_ = 0;
};

MARLINDA_DEFINE_CLASS(CNullReader)

}  // namespace marlinda
