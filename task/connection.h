// Connection: the filters of a CAudioConnector, from their set-up to their release.
#pragma once

#include <marlinda.h>

#include <memory>
#include <mutex>

#include "core/com_ptr.h"
#include "task/source_feed.h"

namespace marlinda {

// A reader or an import filter at one end, an export filter at the other.
struct Filters {
  ComPtr<IAudioReader> reader;
  ComPtr<IImportFilter> import_filter;
  ComPtr<ICoreTask> import_task;
  ComPtr<IExportFilter> export_filter;
  ComPtr<ICoreTask> export_task;
};

// Calls the filters, and counts their references, on the host's thread alone. Worker threads call
// `job` and, for the length that was learnt before Start, GetSampleCount.
class Connection {
 public:
  Connection() : job_(std::make_shared<SourceFeed>()) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Shared with the worker threads. A new set-up has a new one.
  std::shared_ptr<SourceFeed> job() const;

  // Cancels what still runs of the earlier set-up and takes its place. Asks the source for its
  // format and length.
  void SetUp(Filters filters, const StreamFormat& target);
  // Starts the export, then the import, whatever the results.
  void Start();
  // Cancels the export, which leaves a valid file, then the import, and releases the filters.
  void Cancel();
  // As the export task reports. Once it has ended, cancels the import and releases the filters.
  HRESULT QueryIsRunning(VARIANT_BOOL* running);
  // As the export task reports. 1.0 without one.
  HRESULT GetProgress(float* progress);
  // The source's frames, at the target's rate.
  HRESULT GetSampleCount(__int64* count);

 private:
  Filters CopyFilters() const;
  // Removes all filters but the reader, which is no task and stays until the next set-up.
  Filters DetachFilters();
  // Reads the format and length of the source. Does nothing once started.
  void LearnSource();

  mutable std::mutex mutex_;
  Filters filters_;
  std::shared_ptr<SourceFeed> job_;
  bool started_ = false;
  // As learnt last.
  LONG source_rate_ = 0;
  __int64 source_frames_ = 0;
  HRESULT frames_result_ = S_OK;
};

}  // namespace marlinda
