// CWaveWriter: writes everything that passes through it into a WAV file.
#include <marlinda.h>

#include <cstdint>
#include <string>
#include <utility>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/nested_call.h"
#include "core/sample_array.h"
#include "core/text.h"
#include "export/wav_file.h"
#include "export/wav_sample_encoder.h"

namespace marlinda {
namespace {

// 32 bits always mean floats here.
constexpr SHORT kFloatBits = 32;

enum class WriterCall { kWriteAudio, kOpenDevice, kCloseDevice, kSetFormat, kQueryIsReady };

}  // namespace

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
  STDMETHODIMP SetWriteThrough(IAudioWriter* pawWriteThrough) override {
    // A reference to itself would never be released.
    Hold(write_through_, pawWriteThrough == this ? nullptr : pawWriteThrough);
    return S_OK;
  }
  STDMETHODIMP SetResolution(SHORT nBitsPerSample) override {
    bits_per_sample_ = nBitsPerSample;
    return S_OK;
  }
  STDMETHODIMP SetTargetFile(BSTR bstrFileName) override {
    return ComCall([&] { target_file_ = ToAnsi(bstrFileName); });
  }

  // IAudioWriter. Without an open file all of it succeeds and only the next writer is served. An
  // array that holds no floats reaches the next writer and is then E_INVALIDARG.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override {
    const NestedCall call(this, WriterCall::kWriteAudio);
    if (call.Depth() > 1) return S_OK;
    return ComCall([&] {
      if (const auto next = write_through_) next->WriteAudio(psaAudioData);
      SampleArrayView block;
      Check(block.Lock(psaAudioData));

      if (bits_per_sample_ == kFloatBits) {
        file_.Write(std::as_bytes(block.samples()));
      } else if (channels_ > 0) {
        const std::size_t frames = block.samples().size() / static_cast<std::size_t>(channels_);
        const auto whole = block.samples().first(frames * static_cast<std::size_t>(channels_));
        WavSampleEncoder encoder({samples_per_sec_, channels_, bits_per_sample_, false});
        file_.Write(encoder.Encode(whole, frames));
      }
    });
  }
  // Fails when the file cannot be created; a file that is open stays so then, and is otherwise
  // finished before the new one begins.
  STDMETHODIMP OpenDevice() override {
    const NestedCall call(this, WriterCall::kOpenDevice);
    if (call.Depth() > 1) return S_OK;
    return ComCall([&] {
      if (const auto next = write_through_) next->OpenDevice();
      FileHandle file = CreateTargetFile(target_file_);
      if (!file) return LastErrorResult();
      file_.Finish();
      file_.Attach(std::move(file));
      const bool is_float = bits_per_sample_ == kFloatBits;
      file_.Begin({samples_per_sec_, channels_, bits_per_sample_, is_float}, ManyChannels::kPlain);
      return S_OK;
    });
  }
  STDMETHODIMP CloseDevice() override {
    const NestedCall call(this, WriterCall::kCloseDevice);
    if (call.Depth() > 1) return S_OK;
    if (const auto next = write_through_) next->CloseDevice();
    file_.Finish();
    return S_OK;
  }
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override {
    const NestedCall call(this, WriterCall::kSetFormat);
    if (call.Depth() > 1) return S_OK;
    if (const auto next = write_through_) next->SetFormat(nSamplesPerSec, nChannels);
    samples_per_sec_ = nSamplesPerSec;
    channels_ = nChannels;
    return S_OK;
  }
  // Without a next writer the value is not changed: callers initialise it.
  STDMETHODIMP QueryIsReady(LONG* pbReady) override {
    if (pbReady == nullptr) return E_POINTER;
    const NestedCall call(this, WriterCall::kQueryIsReady);
    if (call.Depth() > 1) return S_OK;
    if (const auto next = write_through_) next->QueryIsReady(pbReady);
    return S_OK;
  }

 private:
  ComPtr<IAudioWriter> write_through_;
  std::string target_file_;
  LONG samples_per_sec_ = 44100;
  SHORT channels_ = 2;
  SHORT bits_per_sample_ = 16;
  WavFile file_;
};

MARLINDA_DEFINE_CLASS(CWaveWriter)

}  // namespace marlinda
