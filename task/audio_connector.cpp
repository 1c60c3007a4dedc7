// CAudioConnector: joins an import filter or a reader to an export filter, without a pool.
#include <marlinda.h>

#include <memory>
#include <mutex>
#include <utility>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/sample_count.h"
#include "task/source_feed.h"

namespace marlinda {

// A reader or an import filter as the source, and an export filter.
struct Filters {
  ComPtr<IAudioReader> reader;
  ComPtr<IImportFilter> import_filter;
  ComPtr<ICoreTask> import_task;
  ComPtr<IExportFilter> export_filter;
  ComPtr<ICoreTask> export_task;
};

namespace {

bool IsRunning(ICoreTask* task) {
  VARIANT_BOOL running = VARIANT_FALSE;
  return task != nullptr && SUCCEEDED(task->QueryIsTaskRunning(&running)) &&
         running != VARIANT_FALSE;
}

// Returns an unknown format if the source does not report one.
StreamFormat AskFormat(const Filters& filters) {
  StreamFormat format;
  HRESULT hr = E_NOINTERFACE;
  if (filters.reader) {
    hr = filters.reader->GetFormat(&format.rate, &format.channels);
  } else if (const auto info = TryQuery<IExFormatInfo>(filters.import_filter.Get())) {
    hr = info->GetFormat(&format.rate, &format.channels);
  }
  return SUCCEEDED(hr) ? format : StreamFormat{};
}

// Cancels the import, even if it waits for room, and drops the queued samples.
void EndImport(SourceFeed& job, const Filters& filters) {
  job.queue().Interrupt();
  if (filters.import_task) filters.import_task->Cancel();
  job.queue().Reset();
}

}  // namespace

// The connector is the import filter's writer and the export filter's reader, with a bounded queue
// between them. It uses the external format converter if the formats differ. As a task, it runs the
// tasks of both filters.
//
// The connector and its filters hold each other. Cancel releases the filters, and so does
// QueryIsTaskRunning once it finds that the export has ended. The host must call one of these
// methods. Until then, an import that waits for room keeps waiting.
//
// Only the host's thread calls the filters and counts their references. The export's thread calls
// ReadAudio, GetFormat and GetSampleCount. The import's thread calls WriteAudio and QueryIsReady.
// After Start, these methods call the source reader but no filter. GetSampleCount then reports the
// length that Start has read.
class CAudioConnector final
    : public Object<CAudioConnector, IAudioConnector, ICoreTask, IAudioReader, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioConnector;

  // IAudioConnector. A set-up that fails changes nothing. It returns E_POINTER, E_NOINTERFACE or,
  // if the reader is the connector itself, E_INVALIDARG. A new set-up cancels the running tasks of
  // the earlier one and drops its queued samples. If the target's rate or channel count is not
  // positive, the connector does not convert.
  STDMETHODIMP SetupImportToExport(IUnknown* punkImportFilter, IUnknown* punkExportFilter,
                                   LONG nSamplesPerSec, SHORT nChannels) override {
    if (punkImportFilter == nullptr || punkExportFilter == nullptr) return E_POINTER;
    return ComCall([&] {
      Filters filters;
      filters.import_filter = TryQuery<IImportFilter>(punkImportFilter);
      filters.import_task = TryQuery<ICoreTask>(punkImportFilter);
      if (!filters.import_filter || !filters.import_task) return E_NOINTERFACE;
      return SetUp(std::move(filters), punkExportFilter, {nSamplesPerSec, nChannels});
    });
  }
  STDMETHODIMP SetupReaderToExport(IUnknown* punkAudioReader, IUnknown* punkExportFilter,
                                   LONG nSamplesPerSec, SHORT nChannels) override {
    if (punkAudioReader == nullptr || punkExportFilter == nullptr) return E_POINTER;
    return ComCall([&] {
      // The connector would hold itself and wait for itself.
      if (IsSameObject(punkAudioReader, OuterUnknown())) return E_INVALIDARG;
      Filters filters;
      filters.reader = TryQuery<IAudioReader>(punkAudioReader);
      if (!filters.reader) return E_NOINTERFACE;
      return SetUp(std::move(filters), punkExportFilter, {nSamplesPerSec, nChannels});
    });
  }

  // ICoreTask. Start and Cancel do their work but always return E_NOTIMPL, so callers must ignore
  // the result. Start starts the export, then the import, and ignores their results. Cancel first
  // cancels the export, which leaves a valid file, and then the import.
  STDMETHODIMP Start() override {
    ComCall([&] {
      LearnSource();
      const Filters filters = CopyFilters();
      {
        const std::lock_guard lock(mutex_);
        started_ = true;
      }
      if (filters.export_task) filters.export_task->Start();
      if (filters.import_task) filters.import_task->Start();
    });
    return E_NOTIMPL;
  }
  STDMETHODIMP Cancel() override {
    ComCall([&] {
      const std::shared_ptr<SourceFeed> job = this->job();
      Filters ended = DetachFilters();
      if (ended.export_task) {
        // The export ends after its current block. If the import no longer delivers, one timeout
        // ends the wait for samples, and silence fills the rest of the block.
        job->queue().LimitTimeouts(1);
        ended.export_task->Cancel();
        // Releases the export first. Ending the import may take a while, and a client may be
        // waiting for the exported file.
        ended.export_filter.Reset();
        ended.export_task.Reset();
      }
      EndImport(*job, ended);
    });
    return E_NOTIMPL;
  }
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override {
    if (pbRunning == nullptr) return E_POINTER;
    *pbRunning = VARIANT_FALSE;
    return ComCall([&] {
      const Filters filters = CopyFilters();
      if (!filters.export_task) return S_OK;
      const HRESULT hr = filters.export_task->QueryIsTaskRunning(pbRunning);
      if (FAILED(hr)) return hr;
      const std::shared_ptr<SourceFeed> job = this->job();
      if (*pbRunning == VARIANT_FALSE) {
        EndImport(*job, DetachFilters());
        return hr;
      }
      VARIANT_BOOL imports = VARIANT_FALSE;
      // A failed query changes nothing, because the import may still deliver.
      if (filters.import_task && SUCCEEDED(filters.import_task->QueryIsTaskRunning(&imports))) {
        job->SetImportRuns(imports != VARIANT_FALSE);
      }
      return hr;
    });
  }
  // Returns the progress of the export task, or 1.0 without an export task.
  STDMETHODIMP GetProgress(FLOAT* pfProgress) override {
    return ComCall([&] {
      const Filters filters = CopyFilters();
      return pfProgress != nullptr && filters.export_task
                 ? filters.export_task->GetProgress(pfProgress)
                 : SetOut(pfProgress, 1.0F);
    });
  }
  // Returns an empty string.
  STDMETHODIMP GetName(BSTR* pbstrName) override {
    if (pbstrName == nullptr) return E_POINTER;
    *pbstrName = SysAllocString(L"");
    return *pbstrName != nullptr ? S_OK : E_OUTOFMEMORY;
  }

  // IAudioReader. ReadAudio ignores the position, because reads are sequential.
  STDMETHODIMP ReadAudio(__int64, SAFEARRAY* psaAudioData) override {
    return ComCall([&] { return job()->Read(psaAudioData); });
  }
  // Returns the target format.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    const auto job = this->job();
    return SetOut(pnSamplesPerSec, job->target().rate, pnChannels, job->target().channels);
  }
  // Returns the source's length in frames at the target's rate.
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override {
    if (pnSamples == nullptr) return E_POINTER;
    *pnSamples = 0;
    return ComCall([&] {
      LearnSource();
      const std::lock_guard lock(mutex_);
      if (FAILED(frames_result_)) return frames_result_;
      return SetOut(pnSamples,
                    ConvertSampleCount(source_frames_, source_rate_, job_->target().rate));
    });
  }

  // IAudioWriter. SetFormat does nothing, because the import filter reports the source's format.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override {
    return ComCall([&] { return job()->Write(psaAudioData); });
  }
  STDMETHODIMP SetFormat(LONG, SHORT) override { return S_OK; }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override {
    return SetOut(pbReady, job()->queue().HasRoom() ? 1 : 0);
  }

  // IAudioReader and IAudioWriter.
  STDMETHODIMP OpenDevice() override { return S_OK; }
  STDMETHODIMP CloseDevice() override { return S_OK; }

 private:
  // Cancels the running tasks of the earlier set-up and replaces it.
  HRESULT SetUp(Filters filters, IUnknown* export_filter, const StreamFormat& target) {
    filters.export_filter = TryQuery<IExportFilter>(export_filter);
    filters.export_task = TryQuery<ICoreTask>(export_filter);
    if (!filters.export_filter || !filters.export_task) return E_NOINTERFACE;
    auto job = std::make_shared<SourceFeed>(filters.reader.Get(), target);
    // An ended filter is not cancelled: the host may have initialised it for its next run.
    const std::shared_ptr<SourceFeed> old_job = this->job();
    const Filters old = DetachFilters();
    old_job->queue().LimitTimeouts(1);
    if (IsRunning(old.export_task.Get())) old.export_task->Cancel();
    old_job->queue().Interrupt();
    if (IsRunning(old.import_task.Get())) old.import_task->Cancel();
    old_job->DetachReader();
    {
      const std::lock_guard lock(mutex_);
      std::swap(filters_, filters);
      job_ = std::move(job);
      started_ = false;
      source_rate_ = 0;
      source_frames_ = 0;
      frames_result_ = S_OK;
    }
    LearnSource();
    return S_OK;
  }
  // Shares ownership, because SetUp may replace the job while a filter's thread uses it.
  std::shared_ptr<SourceFeed> job() const {
    const std::lock_guard lock(mutex_);
    return job_;
  }
  Filters CopyFilters() const {
    const std::lock_guard lock(mutex_);
    return filters_;
  }
  // Returns and removes all filters but the reader, which stays until the next set-up.
  Filters DetachFilters() {
    const std::lock_guard lock(mutex_);
    Filters detached = std::exchange(filters_, {});
    filters_.reader = std::exchange(detached.reader, {});
    return detached;
  }
  // Reads the format and length of the source. Does nothing after Start.
  void LearnSource() {
    Filters filters;
    {
      const std::lock_guard lock(mutex_);
      if (started_ || (!filters_.reader && !filters_.import_filter)) return;
      filters = filters_;
    }
    const StreamFormat format = AskFormat(filters);
    __int64 frames = 0;
    const HRESULT hr = filters.reader ? filters.reader->GetSampleCount(&frames)
                                      : filters.import_filter->GetSourceSampleCount(&frames);
    if (FAILED(hr)) frames = 0;
    const std::shared_ptr<SourceFeed> job = this->job();
    job->SetSource(format, frames);
    const std::lock_guard lock(mutex_);
    source_rate_ = format.rate;
    source_frames_ = frames;
    frames_result_ = hr;
  }

  mutable std::mutex mutex_;
  Filters filters_;
  std::shared_ptr<SourceFeed> job_ = std::make_shared<SourceFeed>();
  bool started_ = false;
  // The values last read from the source.
  LONG source_rate_ = 0;
  __int64 source_frames_ = 0;
  HRESULT frames_result_ = S_OK;
};

MARLINDA_DEFINE_CLASS(CAudioConnector)

}  // namespace marlinda
