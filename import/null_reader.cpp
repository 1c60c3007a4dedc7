#include "import/null_reader.h"

#include <algorithm>

#include "core/constants.h"
#include "core/sample_array.h"

namespace marlinda {
namespace {

HRESULT FillWithSilence(SAFEARRAY* array) noexcept {
  SampleArrayView view;
  const HRESULT hr = view.Lock(array);
  if (FAILED(hr)) return hr;
  std::ranges::fill(view.samples(), 0.0F);
  return S_OK;
}

}  // namespace

STDMETHODIMP CNullReader::Create(__int64 nSampleCount, LONG nSamplesPerSec, SHORT nChannels) {
  sample_count_ = nSampleCount;
  samples_per_sec_ = nSamplesPerSec;
  channels_ = nChannels;
  return S_OK;
}

STDMETHODIMP CNullReader::ReadAudio(__int64, SAFEARRAY* psaAudioData) {
  return FillWithSilence(psaAudioData);
}

STDMETHODIMP CNullReader::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  *pnSamplesPerSec = samples_per_sec_;
  *pnChannels = channels_;
  return S_OK;
}

STDMETHODIMP CNullReader::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  *pnSamples = sample_count_;
  return S_OK;
}

STDMETHODIMP CNullReader::OpenDevice() { return S_OK; }

STDMETHODIMP CNullReader::CloseDevice() { return S_OK; }

STDMETHODIMP CNullReader::ReadPeaks(__int64, SAFEARRAY* psaPeakData) {
  return FillWithSilence(psaPeakData);
}

STDMETHODIMP CNullReader::GetSamplesPerPeak(LONG* pnSamplesPerPeak) {
  if (pnSamplesPerPeak == nullptr) return E_POINTER;
  *pnSamplesPerPeak = kFramesPerPeak;
  return S_OK;
}

MARLINDA_DEFINE_CLASS(CNullReader)

}  // namespace marlinda
