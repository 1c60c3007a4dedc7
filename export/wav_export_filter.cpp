// CWavExportFilter: writes the audio of a reader into a RIFF WAV file, as a task.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>

#include "core/annotation_support.h"
#include "core/com_ptr.h"
#include "core/filter_task.h"
#include "core/resource.h"
#include "core/sample_array.h"
#include "export/settings_dialog.h"
#include "export/wav_file.h"
#include "export/wav_layout.h"
#include "export/wav_sample_encoder.h"

namespace marlinda {
namespace {

WavFormat AskFormat(IAudioReader* reader, std::int16_t bits, bool is_float) {
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  // If the reader does not report its format, the file has no channels and no samples.
  reader->GetFormat(&samples_per_sec, &channels);
  return {samples_per_sec, channels, bits, is_float};
}

}  // namespace

// One export from reader to file, run by the filter's worker.
//
// Reader and target belong to the filter until Run begins, then to the worker until Run ends.
//
// Use a job for only one export, because only the constructor resets position and cancel flag. A
// second run with a new reader and target continues at the position of the first. It writes a valid
// file without the earlier frames.
class WavExportJob : public TaskJob {
 public:
  static constexpr std::int64_t kFramesPerBlock = 65536;

  void SetReader(IAudioReader* reader) {
    Hold(reader_, reader);
    __int64 count = 0;
    reader->GetSampleCount(&count);
    total = count;
  }
  // Closes the previous target. An invalid handle means no target.
  void SetTarget(FileHandle file) noexcept { file_.Attach(std::move(file)); }
  bool IsReady() const noexcept { return reader_ && file_.IsOpen(); }

  // Writes the whole file, closes it and releases the reader. After a cancel, or if memory runs
  // out, the file is valid and ends early.
  void Run(std::int16_t bits, bool is_float) noexcept {
    const WavFormat format = AskFormat(reader_.Get(), bits, is_float);
    // WriteSamples fails only for lack of memory. The trailer then follows the written samples.
    ComCall([&] { WriteSamples(format); });
    LittleEndianBytes trailer;
    WithNotes([&](const WavAnnotations& all) { trailer = WavTrailer(all, format.BlockAlign()); });
    file_.Finish(trailer.bytes());
    reader_.Reset();
  }

  // Thread-safe. Calls `use` with the annotations under a lock. The worker reads the annotations
  // after it has written the audio.
  template <class Use>
  HRESULT WithNotes(Use&& use) {
    return ComCall([&] {
      const std::lock_guard lock(annotations_mutex_);
      return std::forward<Use>(use)(annotations_);
    });
  }

 private:
  void WriteSamples(const WavFormat& format) {
    file_.Begin(format, ManyChannels::kExtensible);

    // Without channels there are no samples, so the export is complete at once.
    if (format.channels <= 0) position = std::max(position.load(), total.load());

    WavSampleEncoder encoder(format);
    SampleArray block;
    while (!cancelled && position < total) {
      // Subtracts in 64 bits. In 32 bits, a source of 2^31 frames or more would give negative or
      // empty blocks, and the loop would not end.
      const std::int64_t frames = std::min<std::int64_t>(total - position, kFramesPerBlock);
      SAFEARRAY* const silence = block.Prepare(static_cast<std::size_t>(frames) *
                                               static_cast<std::size_t>(format.channels));
      // Writes the block even if the reader fails, so that later samples stay in place.
      reader_->ReadAudio(position, silence);
      file_.Write(encoder.Encode(block.samples(), static_cast<std::size_t>(frames)));
      position += frames;
    }
  }

  WavFile file_;
  ComPtr<IAudioReader> reader_;
  std::mutex annotations_mutex_;
  WavAnnotations annotations_;
};

// One object serves one export. Call Initialize, the setters and Start, then poll until the task
// has ended, or call Cancel. Start reads the sample width. The worker reads metadata, ACID data,
// labels and markers after the last sample, so they may be set until then.
//
// The task reports no errors. A full disk leaves a truncated file. Samples that a reader fails to
// deliver are written as silence.
class CWavExportFilter final
    : public AnnotationSupport<
          CWavExportFilter,
          FilterTask<CWavExportFilter, WavExportJob, ICoreTask, IExportFilter, ILabelSupport,
                     IMetaDataWriter, ISectionMarkerSupport, IAcidWriter>> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CWavExportFilter;
  static constexpr SHORT kMerit = 200;
  static constexpr UINT kNameText = IDS_SAVING;
  static constexpr UINT kFilterTexts[] = {IDS_WAV_FILTER};
  static constexpr char kPatterns[] = "*.wav";
  static constexpr bool kAddsNotes = true;

  CWavExportFilter() { job_ = std::make_shared<WavExportJob>(); }

  // ICoreTask. Start fails with E_FAIL while the task runs, or if file or reader is missing. If
  // Cancel is called before Start, the file has no samples.
  STDMETHODIMP Start() override {
    return ComCall([&] {
      if (worker_.IsRunning() || !job_->IsReady()) return E_FAIL;
      return worker_.Start([job = job_, bits = bits_per_sample_, is_float = is_float_] {
        job->Run(bits, is_float);
      });
    });
  }

  // IExportFilter. Initialize fails with E_FAIL while the task runs. If Initialize cannot create
  // the file, the object has no file, even if an earlier Initialize had created a file.
  STDMETHODIMP QuerySupportsExtension(BSTR bstrExtension, VARIANT_BOOL* pbSupported) override {
    return ComCall(
        [&] { return HandOut(pbSupported, lstrcmpiA(ToAnsi(bstrExtension).c_str(), "wav") == 0); });
  }
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioReader* pReader) override {
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
  STDMETHODIMP SetBitsPerSample(SHORT nBitsPerSample) override {
    bits_per_sample_ = nBitsPerSample;
    return S_OK;
  }
  STDMETHODIMP QueryHasSettingsDlg(BSTR, VARIANT_BOOL* pbHasSettings) override {
    return HandOut(pbHasSettings, true);
  }
  STDMETHODIMP ShowSettingsDlg(BSTR, ULONG nHwndParent) override {
    // Keeps this object alive, because a message handler may release it while the dialog is open.
    const ComPtr<IUnknown> alive(OuterUnknown());
    ComCall([&] {
      CWavSettings settings(bits_per_sample_, is_float_);
      if (settings.ShowModal(WindowOfNumber(nHwndParent)) == IDOK) {
        bits_per_sample_ = settings.bits_per_sample();
        is_float_ = settings.is_float();
      }
    });
    return S_OK;  // also if no dialog was shown
  }
  STDMETHODIMP QueryIsLossy(VARIANT_BOOL* pbLossy) override { return HandOut(pbLossy, false); }

  // IMetaDataWriter
  STDMETHODIMP SetMetaData(BSTR bstrTitle, BSTR bstrArtist, BSTR bstrAlbum, BSTR bstrYear,
                           BSTR bstrGenre) override {
    return WithNotes([&](WavAnnotations& all) {
      all.tags = {ToAnsi(bstrTitle), ToAnsi(bstrArtist), ToAnsi(bstrAlbum), ToAnsi(bstrYear),
                  ToAnsi(bstrGenre)};
    });
  }

  // IAcidWriter
  STDMETHODIMP SetAcidData(SHORT nRootNote, SHORT nMeterBeats, SHORT nMeterDelimiter,
                           LONG nBeatCount, FLOAT fTempo) override {
    return WithNotes([&](WavAnnotations& all) {
      all.acid = {nRootNote, nMeterBeats, nMeterDelimiter, nBeatCount, fTempo};
    });
  }

  // AnnotationSupport
  template <class Use>
  HRESULT WithNotes(Use&& use) {
    return job_->WithNotes(std::forward<Use>(use));
  }

 private:
  SHORT bits_per_sample_ = 16;
  bool is_float_ = false;  // only the settings dialog changes it
};

MARLINDA_DEFINE_CLASS(CWavExportFilter)

}  // namespace marlinda
