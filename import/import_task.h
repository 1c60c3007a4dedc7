// ImportTask: the methods common to import filters (start, format, section, tags), and the run,
// which decodes the source into the writer.
#pragma once

#include "core/com_ptr.h"
#include "core/filter_task.h"
#include "core/import_section.h"
#include "core/records.h"
#include "import/pcm_format.h"

namespace marlinda {

// Samples in a block, over all channels.
inline constexpr std::size_t kImportBlockSamples = 16384;

// `Source` is an open file with its decoder.
template <class Source>
struct ImportJob : TaskJob {
  PcmFormat format;  // format of the decoded samples
  LONG average_bytes_per_sec = 0;
  bool started = false;
  // Owned by the filter until the worker starts, then by the worker.
  std::shared_ptr<Source> source;
  ComPtr<IAudioWriter> writer;
};

// `Class` provides three static functions:
// - WriteBlocks(Job&, Source&, IAudioWriter*) runs on the worker.
// - SectionFrames(const Job&) returns the exact length in frames if the filter can import a section
//   of the file, otherwise 0.
// - Select(Job&, first, count) prepares the import of this section. Returns false on failure.
template <class Class, class Job, class... Interfaces>
class ImportTask : public FilterTask<Class, Job, Interfaces..., IImportSection> {
 public:
  // IImportFilter. For some compressed files, the count is an estimate until the run has ended.
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override {
    return SetOut(pnSampleCount, job_ != nullptr ? job_->total.load() : 0);
  }

  // IExFormatInfo. All values are 0 before Initialize.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return SetOut(pnSamplesPerSec, Format().samples_per_sec, pnChannels, Format().channels);
  }
  // The width of the decoded samples.
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override {
    return SetOut(pnBitsPerSample, Format().bits);
  }
  // The average over the file, or the nominal rate in the header of an Ogg Vorbis file.
  STDMETHODIMP GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) override {
    return SetOut(pnAvgBytesPerSec, job_ != nullptr ? job_->average_bytes_per_sec : 0);
  }

  // ICoreTask. Fails with E_FAIL without a file or a writer, and after a successful Start.
  STDMETHODIMP Start() override {
    if (job_ == nullptr || job_->started || !job_->source || !job_->writer) return E_FAIL;
    const HRESULT hr = worker_.Start([job = job_] { Run(*job); });
    job_->started = SUCCEEDED(hr);
    return hr;
  }

  // IImportSection
  STDMETHODIMP QueryCanSetSection() override { return SectionFrames() > 0 ? S_OK : S_FALSE; }
  STDMETHODIMP SetSection(__int64 first, __int64 count) override {
    const __int64 frames = SectionFrames();
    if (frames <= 0) return E_FAIL;
    if (first < 0 || count <= 0 || count > frames - first) return E_INVALIDARG;
    return ComCall([&] {
      if (!Class::Select(*job_, first, count)) return E_FAIL;
      job_->total = count;
      return S_OK;
    });
  }

  // IMetaDataReader
  STDMETHODIMP GetMetaData(BSTR* pbstrTitle, BSTR* pbstrArtist, BSTR* pbstrAlbum, BSTR* pbstrYear,
                           BSTR* pbstrGenre) override {
    return HandOut({{pbstrTitle, tags_.title},
                    {pbstrArtist, tags_.artist},
                    {pbstrAlbum, tags_.album},
                    {pbstrYear, tags_.year},
                    {pbstrGenre, tags_.genre}});
  }

 protected:
  using FilterTask<Class, Job, Interfaces..., IImportSection>::job_;
  using FilterTask<Class, Job, Interfaces..., IImportSection>::worker_;

  Tags tags_;

 private:
  PcmFormat Format() const { return job_ != nullptr ? job_->format : PcmFormat(); }

  // Returns 0 before a successful Initialize and after Start, otherwise Class::SectionFrames.
  __int64 SectionFrames() const {
    return job_ != nullptr && !job_->started && job_->source ? Class::SectionFrames(*job_) : 0;
  }

  // Ignores the writer's results, so a failing writer loses samples. To detect failures, a host can
  // pass a writer of its own.
  static void Run(Job& job) {
    // Releases source and writer at the end of Run. Otherwise a finished task would keep the file
    // open, and a writer that holds this filter would form a reference cycle with it.
    const auto source = std::move(job.source);
    const auto target = std::move(job.writer);
    target->SetFormat(job.format.samples_per_sec, job.format.channels);
    target->OpenDevice();
    // ComCall catches exceptions, so that CloseDevice follows in any case.
    ComCall([&] { Class::WriteBlocks(job, *source, target.Get()); });
    target->CloseDevice();
  }
};

// Converts the texts to the system's code page.
inline Tags ToAnsi(const Tags& utf8) {
  return {Utf8ToAnsi(utf8.title), Utf8ToAnsi(utf8.artist), Utf8ToAnsi(utf8.album),
          Utf8ToAnsi(utf8.year), Utf8ToAnsi(utf8.genre)};
}

}  // namespace marlinda
