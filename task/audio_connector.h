// CAudioConnector: joins an import filter or a reader to an export filter, without a pool between.
#pragma once

#include <marlinda.h>

#include <memory>
#include <mutex>

#include "core/com_object.h"
#include "task/connection.h"

namespace marlinda {

// A writer to the import filter and a reader to the export filter; between them a bounded queue
// and, where the formats differ, the external format converter. As a task it runs the two filters'
// tasks.
//
// The filters hold this object as their writer and reader while it holds them: Cancel, or
// QueryIsTaskRunning polled to its end, opens that circle. Filters that let go of reader and writer
// when their run ends, as this module's do, open it too.
class CAudioConnector final
    : public Object<CAudioConnector, IAudioConnector, ICoreTask, IAudioReader, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioConnector;

  CAudioConnector();

  // IAudioConnector. E_POINTER, E_NOINTERFACE and E_INVALIDARG leave the set-up there was as it is.
  // E_INVALIDARG is for a target format that is not positive, and for this object as its own
  // reader, which would hold itself and wait for itself for ever. A new set-up ends what still runs
  // of the one before it, and what that had in the queue is gone.
  STDMETHODIMP SetupImportToExport(IUnknown* punkImportFilter, IUnknown* punkExportFilter,
                                   LONG nSamplesPerSec, SHORT nChannels) override;
  STDMETHODIMP SetupReaderToExport(IUnknown* punkAudioReader, IUnknown* punkExportFilter,
                                   LONG nSamplesPerSec, SHORT nChannels) override;

  // ICoreTask. Start and Cancel return E_NOTIMPL whatever they did: that is how hosts know this
  // object.
  STDMETHODIMP Start() override;
  STDMETHODIMP Cancel() override;
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override;
  STDMETHODIMP GetProgress(FLOAT* pfProgress) override;
  // An empty text.
  STDMETHODIMP GetName(BSTR* pbstrName) override;

  // IAudioReader. Reads are sequential: the position is not looked at.
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  // The target's.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;

  // IAudioWriter. The source's format comes from the import filter, not from SetFormat.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  STDMETHODIMP SetFormat(LONG, SHORT) override { return S_OK; }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override;

  // Of both.
  STDMETHODIMP OpenDevice() override { return S_OK; }
  STDMETHODIMP CloseDevice() override { return S_OK; }

 private:
  std::shared_ptr<Connection> Current() const;
  HRESULT SetUp(Parties parties, IUnknown* export_filter, const StreamFormat& target);

  mutable std::mutex mutex_;
  std::shared_ptr<Connection> connection_;
};

}  // namespace marlinda
