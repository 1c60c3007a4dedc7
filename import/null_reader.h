// CNullReader: a source of silence of a given length and format.
#pragma once

#include <marlinda.h>

#include "core/com_object.h"

namespace marlinda {

// The position of a read is ignored: the sample count is information for the client, not a bound. A
// read before the start or past the end succeeds with silence. Before Create all
// three values are 0.
class CNullReader final : public Object<CNullReader, INullReader, IAudioReader, IPeakReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CNullReader;

  // INullReader
  STDMETHODIMP Create(__int64 nSampleCount, LONG nSamplesPerSec, SHORT nChannels) override;

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;

  // IPeakReader
  STDMETHODIMP ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) override;
  STDMETHODIMP GetSamplesPerPeak(LONG* pnSamplesPerPeak) override;

 private:
  __int64 sample_count_ = 0;
  LONG samples_per_sec_ = 0;
  SHORT channels_ = 0;
};

}  // namespace marlinda
