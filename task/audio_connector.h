// CAudioConnector: joins an import filter or a reader to an export filter, without a pool between.
#pragma once

#include <marlinda.h>

#include "core/com_object.h"
#include "task/connection.h"

namespace marlinda {

// A writer to the import filter and a reader to the export filter, with a bounded queue and, where
// the formats differ, the external format converter in between. As a task it runs the tasks of the
// two filters.
//
// The filters hold this object as their writer and reader, and it holds them. Cancel releases them,
// and so does a poll of QueryIsTaskRunning that finds the export ended. One of the two is needed:
// an import that waits for room waits until then.
//
// The host's thread calls the tasks. ReadAudio and GetFormat are for the export's thread,
// WriteAudio and QueryIsReady for the import's. They use no filter but the source reader.
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

  // ICoreTask. Start and Cancel do their work and return E_NOTIMPL. Ignore the result.
  STDMETHODIMP Start() override;
  STDMETHODIMP Cancel() override;
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override;
  STDMETHODIMP GetProgress(FLOAT* pfProgress) override;
  // An empty string.
  STDMETHODIMP GetName(BSTR* pbstrName) override;

  // IAudioReader. Reads are sequential: the position is ignored.
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  // The target format.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;

  // IAudioWriter. SetFormat is ignored: the import filter reports the source's format.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  STDMETHODIMP SetFormat(LONG, SHORT) override { return S_OK; }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override;

  // IAudioReader and IAudioWriter.
  STDMETHODIMP OpenDevice() override { return S_OK; }
  STDMETHODIMP CloseDevice() override { return S_OK; }

 private:
  HRESULT SetUp(Filters filters, IUnknown* export_filter, const StreamFormat& target);

  Connection connection_;
};

}  // namespace marlinda
