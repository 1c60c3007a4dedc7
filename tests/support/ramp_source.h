// An audio source whose every sample tells which source, frame and channel it is, and which notes
// every call in a log.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "core/com_ptr.h"

namespace marlinda::testing {

// What several sources were asked, in order: "A.ReadAudio(100, 8)", the 8 being array elements.
using CallLog = std::vector<std::string>;

class RampSource : public IAudioReader {
 public:
  // `name` is one letter from A on.
  static ComPtr<RampSource> Make(char name, SHORT channels = 2, CallLog* log = nullptr,
                                 LONG samples_per_sec = 44100);

  // Exact for frames from -4096 to 4095 and up to 8 channels.
  static float Sample(char name, __int64 frame, int channel);

  char name() const { return name_; }
  // References beyond the one of the test itself.
  long Held() const { return references_ - 1; }

  // What the calls answer; reads deliver only when they succeed.
  HRESULT read_result = S_OK;
  HRESULT open_result = S_OK;
  // Runs inside ReadAudio before anything is delivered, with the caller's array.
  std::function<void(SAFEARRAY*)> on_read;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references_); }
  STDMETHODIMP_(ULONG) Release() override;

  STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                      UINT*) override {
    return E_NOTIMPL;
  }

  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;

 protected:
  RampSource(char name, SHORT channels, CallLog* log, LONG samples_per_sec)
      : name_(name), channels_(channels), samples_per_sec_(samples_per_sec), log_(log) {}
  virtual ~RampSource() = default;

  void Note(const std::string& call) {
    if (log_ != nullptr) log_->push_back(name_ + ("." + call));
  }

 private:
  const char name_;
  const SHORT channels_;
  const LONG samples_per_sec_;
  CallLog* const log_;
  std::atomic<long> references_ = 1;
};

}  // namespace marlinda::testing
