#include "task/connection.h"

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

}  // namespace

std::shared_ptr<SourceFeed> Connection::job() const {
  const std::lock_guard lock(mutex_);
  return job_;
}

void Connection::SetUp(Filters filters, const StreamFormat& target) {
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
}

void Connection::Start() {
  LearnSource();
  const Filters filters = CopyFilters();
  {
    const std::lock_guard lock(mutex_);
    started_ = true;
  }
  if (filters.export_task) filters.export_task->Start();
  if (filters.import_task) filters.import_task->Start();
}

void Connection::Cancel() {
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
  // An import that waits for room would never end.
  job->queue().Interrupt();
  if (ended.import_task) ended.import_task->Cancel();
  job->queue().Reset();
}

HRESULT Connection::QueryIsRunning(VARIANT_BOOL* running) {
  *running = VARIANT_FALSE;
  const Filters filters = CopyFilters();
  if (!filters.export_task) return S_OK;
  const HRESULT hr = filters.export_task->QueryIsTaskRunning(running);
  if (FAILED(hr)) return hr;
  if (*running != VARIANT_FALSE) {
    VARIANT_BOOL imports = VARIANT_FALSE;
    // An import that does not answer may still deliver.
    if (filters.import_task && SUCCEEDED(filters.import_task->QueryIsTaskRunning(&imports))) {
      job()->SetImportRuns(imports != VARIANT_FALSE);
    }
    return hr;
  }
  const std::shared_ptr<SourceFeed> job = this->job();
  const Filters ended = DetachFilters();
  job->queue().Interrupt();
  if (ended.import_task) ended.import_task->Cancel();
  job->queue().Reset();
  return hr;
}

HRESULT Connection::GetProgress(float* progress) {
  const Filters filters = CopyFilters();
  if (filters.export_task) return filters.export_task->GetProgress(progress);
  *progress = 1.0F;
  return S_OK;
}

HRESULT Connection::GetSampleCount(__int64* count) {
  LearnSource();
  const std::lock_guard lock(mutex_);
  if (FAILED(frames_result_)) return frames_result_;
  *count = ConvertSampleCount(source_frames_, source_rate_, job_->target().rate);
  return S_OK;
}

Filters Connection::CopyFilters() const {
  const std::lock_guard lock(mutex_);
  return filters_;
}

Filters Connection::DetachFilters() {
  const std::lock_guard lock(mutex_);
  Filters detached = std::exchange(filters_, {});
  filters_.reader = std::exchange(detached.reader, {});
  return detached;
}

void Connection::LearnSource() {
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

}  // namespace marlinda
