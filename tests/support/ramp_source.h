// An audio source whose samples encode source, frame and channel. It logs every call.
#pragma once

#include <marlinda.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/test_object.h"

namespace marlinda::testing {

// The calls to several sources, in order: "A.ReadAudio(100, 8)", where 8 counts array elements.
using CallLog = std::vector<std::string>;

class RampSource : public TestObject<IAudioReader> {
 public:
  // `name` is a letter from A on.
  static ComPtr<RampSource> Make(char name, SHORT channels = 2, CallLog* log = nullptr,
                                 LONG samples_per_sec = 44100) {
    ComPtr<RampSource> source;
    *source.GetAddressOf() = new RampSource(name, channels, log, samples_per_sec);
    return source;
  }

  // Returns a number that identifies source, frame and channel, for frames from -4096 to 4095 and
  // up to 8 channels.
  static float Sample(char name, __int64 frame, int channel) {
    return static_cast<float>(((name - 'A' + 1) << 16) + (frame + 4096) * 8 + channel);
  }

  char name() const { return name_; }
  int channels() const { return channels_; }

  // Results of the calls. Only successful reads deliver samples.
  HRESULT read_result = S_OK;
  HRESULT open_result = S_OK;
  __int64 frames = 4096;  // the reported number; reads past it still deliver samples
  // Runs inside ReadAudio with the caller's array, before the source delivers samples.
  std::function<void(SAFEARRAY*)> on_read;

  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override {
    const ULONG count = psaAudioData->rgsabound[0].cElements;
    Note("ReadAudio(" + std::to_string(nSamplePos) + ", " + std::to_string(count) + ")");
    if (on_read) on_read(psaAudioData);
    auto* const samples = static_cast<float*>(psaAudioData->pvData);
    for (ULONG i = 0; i < count && SUCCEEDED(read_result); ++i) {
      samples[i] = At(nSamplePos + i / channels_, static_cast<int>(i % channels_));
    }
    return read_result;
  }
  STDMETHODIMP GetFormat(LONG* rate, SHORT* channels) override {
    return *rate = samples_per_sec_, *channels = channels_, Note("GetFormat"), S_OK;
  }
  STDMETHODIMP GetSampleCount(__int64* count) override {
    return *count = frames, Note("GetSampleCount"), S_OK;
  }
  STDMETHODIMP OpenDevice() override { return Note("OpenDevice"), open_result; }
  STDMETHODIMP CloseDevice() override { return Note("CloseDevice"), S_OK; }

 protected:
  RampSource(char name, SHORT channels, CallLog* log, LONG samples_per_sec)
      : name_(name), channels_(channels), samples_per_sec_(samples_per_sec), log_(log) {}

  // Every method of IAudioReader reports its call here, such as "ReadAudio(0, 8820)".
  virtual void Note(const std::string& call) {
    if (log_ != nullptr) log_->push_back(name_ + ("." + call));
  }
  // Returns the samples that reads deliver.
  virtual float At(__int64 frame, int channel) const { return Sample(name_, frame, channel); }

 private:
  const char name_;
  const SHORT channels_;
  const LONG samples_per_sec_;
  CallLog* const log_;
};

}  // namespace marlinda::testing
