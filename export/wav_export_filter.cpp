#include "export/wav_export_filter.h"

#include <algorithm>

#include "core/sample_array.h"
#include "export/settings_dialog.h"
#include "export/wav_sample_encoder.h"

namespace marlinda {
namespace {

WavFormat AskFormat(IAudioReader* reader, std::int16_t bits, bool is_float) {
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  // A reader that does not report its format has no channels, and its file no samples.
  reader->GetFormat(&samples_per_sec, &channels);
  return {samples_per_sec, channels, bits, is_float};
}

}  // namespace

void WavExportJob::SetReader(IAudioReader* reader) {
  Hold(reader_, reader);
  __int64 count = 0;
  reader->GetSampleCount(&count);
  total = count;
}

void WavExportJob::Run(std::int16_t bits, bool is_float) noexcept {
  const WavFormat format = AskFormat(reader_.Get(), bits, is_float);
  // Only memory can run out on the way: that ends the samples, and the rest of the file follows.
  ComCall([&] { WriteSamples(format); });
  LittleEndianBytes trailer;
  WithNotes([&](const WavAnnotations& all) { trailer = WavTrailer(all, format.BlockAlign()); });
  file_.Finish(trailer.bytes());
  reader_.Reset();
}

void WavExportJob::WriteSamples(const WavFormat& format) {
  file_.Begin(format, ManyChannels::kExtensible);

  // Without channels there is nothing to read, whatever the length.
  if (format.channels <= 0) position = std::max(position.load(), total.load());

  WavSampleEncoder encoder(format);
  SampleArray block;
  while (!cancelled && position < total) {
    // The difference is taken in 64 bits: in 32, a source of 2^31 frames or more would give
    // negative or empty blocks and no end.
    const std::int64_t frames = std::min<std::int64_t>(total - position, kFramesPerBlock);
    SAFEARRAY* const silence =
        block.Prepare(static_cast<std::size_t>(frames) * static_cast<std::size_t>(format.channels));
    // Whatever a failing reader left in the block is written, so that the rest keeps its place.
    reader_->ReadAudio(position, silence);
    file_.Write(encoder.Encode(block.samples(), static_cast<std::size_t>(frames)));
    position += frames;
  }
}

STDMETHODIMP CWavExportFilter::Start() {
  return ComCall([&] {
    if (worker_.IsRunning() || !job_->IsReady()) return E_FAIL;
    return worker_.Start(
        [job = job_, bits = bits_per_sample_, is_float = is_float_] { job->Run(bits, is_float); });
  });
}

STDMETHODIMP CWavExportFilter::Initialize(BSTR bstrFileName, IAudioReader* pReader) {
  if (pReader == nullptr) return E_POINTER;
  return ComCall([&] {
    if (worker_.IsRunning()) return E_FAIL;
    file_name_ = ToAnsi(bstrFileName);
    job_->SetReader(pReader);
    FileHandle file = CreateTargetFile(file_name_);
    const HRESULT hr = file ? S_OK : LastErrorResult();
    job_->SetTarget(std::move(file));
    return hr;
  });
}

STDMETHODIMP CWavExportFilter::ShowSettingsDlg(BSTR, ULONG nHwndParent) {
  // The dialog serves other messages of this thread, and the last release may be among them.
  const ComPtr<IUnknown> alive(OuterUnknown());
  ComCall([&] {
    CWavSettings settings(bits_per_sample_, is_float_);
    if (settings.ShowModal(WindowOfNumber(nHwndParent)) == IDOK) {
      bits_per_sample_ = settings.bits_per_sample();
      is_float_ = settings.is_float();
    }
  });
  return S_OK;  // a dialog that could not be shown has changed nothing
}

STDMETHODIMP CWavExportFilter::SetMetaData(BSTR bstrTitle, BSTR bstrArtist, BSTR bstrAlbum,
                                           BSTR bstrYear, BSTR bstrGenre) {
  return WithNotes([&](WavAnnotations& all) {
    all.tags = {ToAnsi(bstrTitle), ToAnsi(bstrArtist), ToAnsi(bstrAlbum), ToAnsi(bstrYear),
                ToAnsi(bstrGenre)};
  });
}

STDMETHODIMP CWavExportFilter::SetAcidData(SHORT nRootNote, SHORT nMeterBeats,
                                           SHORT nMeterDelimiter, LONG nBeatCount, FLOAT fTempo) {
  return WithNotes([&](WavAnnotations& all) {
    all.acid = {nRootNote, nMeterBeats, nMeterDelimiter, nBeatCount, fTempo};
  });
}

MARLINDA_DEFINE_CLASS(CWavExportFilter)

}  // namespace marlinda
