#include "export/wave_writer.h"

#include <cstdint>
#include <utility>

#include "core/nested_call.h"
#include "core/sample_array.h"
#include "export/wav_sample_encoder.h"

namespace marlinda {
namespace {

// 32 bits always mean floats here.
constexpr SHORT kFloatBits = 32;

enum class WriterCall { kWriteAudio, kOpenDevice, kCloseDevice, kSetFormat, kQueryIsReady };

}  // namespace

STDMETHODIMP CWaveWriter::SetWriteThrough(IAudioWriter* pawWriteThrough) {
  // A reference to itself would never be released.
  Hold(write_through_, pawWriteThrough == this ? nullptr : pawWriteThrough);
  return S_OK;
}

STDMETHODIMP CWaveWriter::WriteAudio(SAFEARRAY* psaAudioData) {
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

STDMETHODIMP CWaveWriter::OpenDevice() {
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

STDMETHODIMP CWaveWriter::CloseDevice() {
  const NestedCall call(this, WriterCall::kCloseDevice);
  if (call.Depth() > 1) return S_OK;
  if (const auto next = write_through_) next->CloseDevice();
  file_.Finish();
  return S_OK;
}

STDMETHODIMP CWaveWriter::SetFormat(LONG nSamplesPerSec, SHORT nChannels) {
  const NestedCall call(this, WriterCall::kSetFormat);
  if (call.Depth() > 1) return S_OK;
  if (const auto next = write_through_) next->SetFormat(nSamplesPerSec, nChannels);
  samples_per_sec_ = nSamplesPerSec;
  channels_ = nChannels;
  return S_OK;
}

STDMETHODIMP CWaveWriter::QueryIsReady(LONG* pbReady) {
  if (pbReady == nullptr) return E_POINTER;
  const NestedCall call(this, WriterCall::kQueryIsReady);
  if (call.Depth() > 1) return S_OK;
  if (const auto next = write_through_) next->QueryIsReady(pbReady);
  return S_OK;
}

MARLINDA_DEFINE_CLASS(CWaveWriter)

}  // namespace marlinda
