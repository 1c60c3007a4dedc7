#include "task/audio_connector.h"

#include <utility>

#include "core/sample_count.h"

namespace marlinda {
namespace {

bool IsRunning(ICoreTask* task) {
  VARIANT_BOOL running = VARIANT_FALSE;
  return task != nullptr && SUCCEEDED(task->QueryIsTaskRunning(&running)) &&
         running != VARIANT_FALSE;
}

// Not known if the source does not report it.
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

// Lets an import end, also one that waits for room, and drops the queued samples.
void EndImport(SourceFeed& job, const Filters& filters) {
  job.queue().Interrupt();
  if (filters.import_task) filters.import_task->Cancel();
  job.queue().Reset();
}

}  // namespace

HRESULT CAudioConnector::SetUp(Filters filters, IUnknown* export_filter,
                               const StreamFormat& target) {
  filters.export_filter = TryQuery<IExportFilter>(export_filter);
  filters.export_task = TryQuery<ICoreTask>(export_filter);
  if (!filters.export_filter || !filters.export_task) return E_NOINTERFACE;
  auto job = std::make_shared<SourceFeed>(filters.reader.Get(), target);
  // A filter that has ended is not cancelled: the host may have initialised it for its next run.
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

STDMETHODIMP CAudioConnector::SetupImportToExport(IUnknown* punkImportFilter,
                                                  IUnknown* punkExportFilter, LONG nSamplesPerSec,
                                                  SHORT nChannels) {
  if (punkImportFilter == nullptr || punkExportFilter == nullptr) return E_POINTER;
  return ComCall([&] {
    Filters filters;
    filters.import_filter = TryQuery<IImportFilter>(punkImportFilter);
    filters.import_task = TryQuery<ICoreTask>(punkImportFilter);
    if (!filters.import_filter || !filters.import_task) return E_NOINTERFACE;
    return SetUp(std::move(filters), punkExportFilter, {nSamplesPerSec, nChannels});
  });
}

STDMETHODIMP CAudioConnector::SetupReaderToExport(IUnknown* punkAudioReader,
                                                  IUnknown* punkExportFilter, LONG nSamplesPerSec,
                                                  SHORT nChannels) {
  if (punkAudioReader == nullptr || punkExportFilter == nullptr) return E_POINTER;
  return ComCall([&] {
    // The object would hold itself and wait for itself.
    if (IsSameObject(punkAudioReader, OuterUnknown())) return E_INVALIDARG;
    Filters filters;
    filters.reader = TryQuery<IAudioReader>(punkAudioReader);
    if (!filters.reader) return E_NOINTERFACE;
    return SetUp(std::move(filters), punkExportFilter, {nSamplesPerSec, nChannels});
  });
}

STDMETHODIMP CAudioConnector::Start() {
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

STDMETHODIMP CAudioConnector::Cancel() {
  ComCall([&] {
    const std::shared_ptr<SourceFeed> job = this->job();
    Filters ended = DetachFilters();
    if (ended.export_task) {
      // The export ends after its present block, which is complete as long as the import delivers.
      job->queue().LimitTimeouts(1);
      ended.export_task->Cancel();
      // Before the import: the owner of the export may wait for its file.
      ended.export_filter.Reset();
      ended.export_task.Reset();
    }
    EndImport(*job, ended);
  });
  return E_NOTIMPL;
}

STDMETHODIMP CAudioConnector::QueryIsTaskRunning(VARIANT_BOOL* pbRunning) {
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
    // An import that does not answer may still deliver.
    if (filters.import_task && SUCCEEDED(filters.import_task->QueryIsTaskRunning(&imports))) {
      job->SetImportRuns(imports != VARIANT_FALSE);
    }
    return hr;
  });
}

STDMETHODIMP CAudioConnector::GetProgress(FLOAT* pfProgress) {
  return ComCall([&] {
    const Filters filters = CopyFilters();
    return pfProgress != nullptr && filters.export_task
               ? filters.export_task->GetProgress(pfProgress)
               : SetOut(pfProgress, 1.0F);
  });
}

STDMETHODIMP CAudioConnector::GetName(BSTR* pbstrName) {
  if (pbstrName == nullptr) return E_POINTER;
  *pbstrName = SysAllocString(L"");
  return *pbstrName != nullptr ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CAudioConnector::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  *pnSamples = 0;
  return ComCall([&] {
    LearnSource();
    const std::lock_guard lock(mutex_);
    if (FAILED(frames_result_)) return frames_result_;
    return SetOut(pnSamples, ConvertSampleCount(source_frames_, source_rate_, job_->target().rate));
  });
}

std::shared_ptr<SourceFeed> CAudioConnector::job() const {
  const std::lock_guard lock(mutex_);
  return job_;
}

Filters CAudioConnector::CopyFilters() const {
  const std::lock_guard lock(mutex_);
  return filters_;
}

Filters CAudioConnector::DetachFilters() {
  const std::lock_guard lock(mutex_);
  Filters detached = std::exchange(filters_, {});
  filters_.reader = std::exchange(detached.reader, {});
  return detached;
}

void CAudioConnector::LearnSource() {
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

MARLINDA_DEFINE_CLASS(CAudioConnector)

}  // namespace marlinda
