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
  ComCall([&] {
    const auto annotations = WithAnnotations([](const WavAnnotations& all) { return all; });
    trailer = WavTrailer(annotations, format.BlockAlign());
  });
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

CWavExportFilter::CWavExportFilter() { job_ = std::make_shared<WavExportJob>(); }

STDMETHODIMP CWavExportFilter::Start() {
  return ComCall([&] {
    if (worker_.IsRunning() || !job_->IsReady()) return E_FAIL;
    return worker_.Start(
        [job = job_, bits = bits_per_sample_, is_float = is_float_] { job->Run(bits, is_float); });
  });
}

STDMETHODIMP CWavExportFilter::QuerySupportsExtension(BSTR bstrExtension,
                                                      VARIANT_BOOL* pbSupported) {
  return ComCall(
      [&] { return HandOut(pbSupported, lstrcmpiA(ToAnsi(bstrExtension).c_str(), "wav") == 0); });
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

STDMETHODIMP CWavExportFilter::SetBitsPerSample(SHORT nBitsPerSample) {
  bits_per_sample_ = nBitsPerSample;
  return S_OK;
}

STDMETHODIMP CWavExportFilter::QueryHasSettingsDlg(BSTR, VARIANT_BOOL* pbHasSettings) {
  return HandOut(pbHasSettings, true);
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

STDMETHODIMP CWavExportFilter::QueryIsLossy(VARIANT_BOOL* pbLossy) {
  return HandOut(pbLossy, false);
}

STDMETHODIMP CWavExportFilter::AddLabel(__int64 nPosition, BSTR bstrName) {
  return ComCall([&] {
    Label label{nPosition, ToAnsi(bstrName)};
    job_->WithAnnotations([&](WavAnnotations& all) { all.labels.push_back(std::move(label)); });
  });
}

STDMETHODIMP CWavExportFilter::GetLabelCount(LONG* pnLabelCount) {
  if (pnLabelCount == nullptr) return E_POINTER;
  *pnLabelCount = job_->WithAnnotations(
      [](const WavAnnotations& all) { return static_cast<LONG>(all.labels.size()); });
  return S_OK;
}

STDMETHODIMP CWavExportFilter::RemoveAllLabels() {
  job_->WithAnnotations([](WavAnnotations& all) { all.labels.clear(); });
  return S_OK;
}

STDMETHODIMP CWavExportFilter::SetMetaData(BSTR bstrTitle, BSTR bstrArtist, BSTR bstrAlbum,
                                           BSTR bstrYear, BSTR bstrGenre) {
  return ComCall([&] {
    Tags tags{ToAnsi(bstrTitle), ToAnsi(bstrArtist), ToAnsi(bstrAlbum), ToAnsi(bstrYear),
              ToAnsi(bstrGenre)};
    job_->WithAnnotations([&](WavAnnotations& all) { all.tags = std::move(tags); });
  });
}

STDMETHODIMP CWavExportFilter::AddSectionMarker(__int64 nBegin, __int64 nEnd, BSTR bstrName) {
  return ComCall([&] {
    SectionMarker marker{{nBegin, nEnd}, ToAnsi(bstrName)};
    job_->WithAnnotations([&](WavAnnotations& all) { all.markers.push_back(std::move(marker)); });
  });
}

STDMETHODIMP CWavExportFilter::GetMarkerCount(LONG* pnMarkerCount) {
  if (pnMarkerCount == nullptr) return E_POINTER;
  *pnMarkerCount = job_->WithAnnotations(
      [](const WavAnnotations& all) { return static_cast<LONG>(all.markers.size()); });
  return S_OK;
}

STDMETHODIMP CWavExportFilter::RemoveAllSectionMarkers() {
  job_->WithAnnotations([](WavAnnotations& all) { all.markers.clear(); });
  return S_OK;
}

STDMETHODIMP CWavExportFilter::SetAcidData(SHORT nRootNote, SHORT nMeterBeats,
                                           SHORT nMeterDelimiter, LONG nBeatCount, FLOAT fTempo) {
  const AcidData acid{nRootNote, nMeterBeats, nMeterDelimiter, nBeatCount, fTempo};
  job_->WithAnnotations([&](WavAnnotations& all) { all.acid = acid; });
  return S_OK;
}

MARLINDA_DEFINE_CLASS(CWavExportFilter)

}  // namespace marlinda
