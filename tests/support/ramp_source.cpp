#include "tests/support/ramp_source.h"

namespace marlinda::testing {

ComPtr<RampSource> RampSource::Make(char name, SHORT channels, CallLog* log, LONG samples_per_sec) {
  ComPtr<RampSource> source;
  *source.GetAddressOf() = new RampSource(name, channels, log, samples_per_sec);
  return source;
}

float RampSource::Sample(char name, __int64 frame, int channel) {
  return static_cast<float>(((name - 'A' + 1) << 16) + (frame + 4096) * 8 + channel);
}

STDMETHODIMP RampSource::ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) {
  const ULONG count = psaAudioData->rgsabound[0].cElements;
  Note("ReadAudio(" + std::to_string(nSamplePos) + ", " + std::to_string(count) + ")");
  if (on_read) on_read(psaAudioData);
  if (FAILED(read_result)) return read_result;
  auto* const samples = static_cast<float*>(psaAudioData->pvData);
  for (ULONG i = 0; i < count; ++i) {
    samples[i] = At(nSamplePos + i / channels_, static_cast<int>(i % channels_));
  }
  return read_result;
}

STDMETHODIMP RampSource::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  Note("GetFormat");
  *pnSamplesPerSec = samples_per_sec_;
  *pnChannels = channels_;
  return S_OK;
}

STDMETHODIMP RampSource::GetSampleCount(__int64* pnSamples) {
  Note("GetSampleCount");
  *pnSamples = frames;
  return S_OK;
}

STDMETHODIMP RampSource::OpenDevice() {
  Note("OpenDevice");
  return open_result;
}

STDMETHODIMP RampSource::CloseDevice() {
  Note("CloseDevice");
  return S_OK;
}

}  // namespace marlinda::testing
