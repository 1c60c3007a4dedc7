// CAudioConnector: joins an import filter or a reader to an export filter, without a pool between.
#pragma once

#include <marlinda.h>

#include <memory>
#include <mutex>

#include "core/com_object.h"
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

// A writer to the import filter and a reader to the export filter, with a bounded queue and, where
// the formats differ, the external format converter in between. As a task it runs the tasks of the
// two filters.
//
// The filters hold this object as their writer and reader, and it holds them. Cancel releases them,
// and so does a poll of QueryIsTaskRunning that finds the export ended. One of the two is needed:
// an import that waits for room waits until then.
//
// The host's thread alone calls the filters and counts their references. ReadAudio and GetFormat
// are for the export's thread, WriteAudio and QueryIsReady for the import's. They use no filter but
// the source reader. GetSampleCount, for the export's thread, reports the length that was learnt
// before Start.
class CAudioConnector final
    : public Object<CAudioConnector, IAudioConnector, ICoreTask, IAudioReader, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioConnector;

  // IAudioConnector. A failure (E_POINTER, E_NOINTERFACE, E_INVALIDARG for this object as its own
  // reader) leaves the earlier set-up as it is. A new set-up cancels what still runs of the earlier
  // one and drops its queued samples. A target with a rate or channel count that is not positive
  // makes no converter.
  STDMETHODIMP SetupImportToExport(IUnknown* punkImportFilter, IUnknown* punkExportFilter,
                                   LONG nSamplesPerSec, SHORT nChannels) override;
  STDMETHODIMP SetupReaderToExport(IUnknown* punkAudioReader, IUnknown* punkExportFilter,
                                   LONG nSamplesPerSec, SHORT nChannels) override;

  // ICoreTask. Start and Cancel do their work and return E_NOTIMPL. Ignore the result. Start starts
  // the export, then the import, whatever the results. Cancel cancels the export, which leaves a
  // valid file, then the import.
  STDMETHODIMP Start() override;
  STDMETHODIMP Cancel() override;
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override;
  // As the export task reports. 1.0 without one.
  STDMETHODIMP GetProgress(FLOAT* pfProgress) override;
  // An empty string.
  STDMETHODIMP GetName(BSTR* pbstrName) override;

  // IAudioReader. Reads are sequential: the position is ignored.
  STDMETHODIMP ReadAudio(__int64, SAFEARRAY* psaAudioData) override {
    return ComCall([&] { return job()->Read(psaAudioData); });
  }
  // The target format.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    const auto job = this->job();
    return SetOut(pnSamplesPerSec, job->target().rate, pnChannels, job->target().channels);
  }
  // The source's frames, at the target's rate.
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;

  // IAudioWriter. SetFormat is ignored: the import filter reports the source's format.
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
  // Cancels what still runs of the earlier set-up and takes its place.
  HRESULT SetUp(Filters filters, IUnknown* export_filter, const StreamFormat& target);
  // Shared with the worker threads. A new set-up has a new one.
  std::shared_ptr<SourceFeed> job() const;
  Filters CopyFilters() const;
  // Removes all filters but the reader, which is no task and stays until the next set-up.
  Filters DetachFilters();
  // Reads the format and length of the source. Does nothing once started.
  void LearnSource();

  mutable std::mutex mutex_;
  Filters filters_;
  std::shared_ptr<SourceFeed> job_ = std::make_shared<SourceFeed>();
  bool started_ = false;
  // As learnt last.
  LONG source_rate_ = 0;
  __int64 source_frames_ = 0;
  HRESULT frames_result_ = S_OK;
};

}  // namespace marlinda
