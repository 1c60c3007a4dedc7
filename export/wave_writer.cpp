// CWaveWriter: passes audio on to another writer and writes it into a WAV file.
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

// SetResolution(32) selects float samples.
constexpr SHORT kFloatBits = 32;

enum class WriterCall { kWriteAudio, kOpenDevice, kCloseDevice, kSetFormat, kQueryIsReady };

}  // namespace

// Every IAudioWriter call goes to the next writer first and then into the file. The next writer's
// result is ignored. If the next writer changes a block in place, the file gets the changed block.
// In front of a playback object, a wave writer records the played sound.
//
// Only the thread that drives the writers may call a wave writer. Writers may form a ring. A call
// that comes back to a writer ends there, so each writer writes every block once.
class CWaveWriter final : public Object<CWaveWriter, IWaveWriter, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CWaveWriter;

  // A file that is still open keeps its samples, but the sizes in its header stay 0.
  ~CWaveWriter() = default;

  // IWaveWriter. Setting the object itself as its next writer removes the next writer.
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

  // IAudioWriter. Without an open file, calls only go to the next writer. If an array's elements
  // are not floats, WriteAudio passes it to the next writer, then fails with E_INVALIDARG.
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
  // Finishes an open file and begins the new file. If the new file cannot be created, OpenDevice
  // fails, and the open file stays open.
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
  // Without a next writer, the value does not change. Callers must initialise it.
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
