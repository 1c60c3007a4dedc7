// CWaveWriter: writes everything that passes through it into a WAV file.
#pragma once

#include <marlinda.h>

#include <string>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/text.h"
#include "export/wav_file.h"

namespace marlinda {

// Every IAudioWriter call goes to the next writer first, whose result is ignored, and then into the
// file. A writer that changes the block in place changes the file, too. In front of a playback it
// records the sound that is played.
//
// For one thread at a time, the one that drives the chain. Rings of writers are allowed: a call
// that comes back to a writer it has passed ends there, so each writes every block once.
class CWaveWriter final : public Object<CWaveWriter, IWaveWriter, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CWaveWriter;

  // A file that no CloseDevice has finished keeps its samples when the last reference goes; the
  // sizes in its header stay 0.
  ~CWaveWriter() = default;

  // IWaveWriter. The object itself as its next writer is the same as none: it would hold a
  // reference to itself that nothing releases.
  STDMETHODIMP SetWriteThrough(IAudioWriter* pawWriteThrough) override;
  STDMETHODIMP SetResolution(SHORT nBitsPerSample) override {
    bits_per_sample_ = nBitsPerSample;
    return S_OK;
  }
  STDMETHODIMP SetTargetFile(BSTR bstrFileName) override {
    return ComCall([&] { target_file_ = ToAnsi(bstrFileName); });
  }

  // IAudioWriter. Without an open file all of it succeeds and only the next writer is served. An
  // array that holds no floats reaches the next writer and is then E_INVALIDARG.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  // Fails when the file cannot be created; a file that is open stays so then, and is otherwise
  // finished before the new one begins.
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override;
  // Without a next writer the value is not changed: callers initialise it.
  STDMETHODIMP QueryIsReady(LONG* pbReady) override;

 private:
  ComPtr<IAudioWriter> write_through_;
  std::string target_file_;
  LONG samples_per_sec_ = 44100;
  SHORT channels_ = 2;
  SHORT bits_per_sample_ = 16;
  WavFile file_;
};

}  // namespace marlinda
