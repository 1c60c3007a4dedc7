#include "task/audio_connector.h"

#include <utility>

namespace marlinda {

HRESULT CAudioConnector::SetUp(Filters filters, IUnknown* export_filter,
                               const StreamFormat& target) {
  filters.export_filter = TryQuery<IExportFilter>(export_filter);
  filters.export_task = TryQuery<ICoreTask>(export_filter);
  if (!filters.export_filter || !filters.export_task) return E_NOINTERFACE;
  connection_.SetUp(std::move(filters), target);
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
  ComCall([&] { connection_.Start(); });
  return E_NOTIMPL;
}

STDMETHODIMP CAudioConnector::Cancel() {
  ComCall([&] { connection_.Cancel(); });
  return E_NOTIMPL;
}

STDMETHODIMP CAudioConnector::QueryIsTaskRunning(VARIANT_BOOL* pbRunning) {
  if (pbRunning == nullptr) return E_POINTER;
  return ComCall([&] { return connection_.QueryIsRunning(pbRunning); });
}

STDMETHODIMP CAudioConnector::GetProgress(FLOAT* pfProgress) {
  if (pfProgress == nullptr) return E_POINTER;
  return ComCall([&] { return connection_.GetProgress(pfProgress); });
}

STDMETHODIMP CAudioConnector::GetName(BSTR* pbstrName) {
  if (pbstrName == nullptr) return E_POINTER;
  *pbstrName = SysAllocString(L"");
  return *pbstrName != nullptr ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CAudioConnector::ReadAudio(__int64, SAFEARRAY* psaAudioData) {
  return ComCall([&] { return connection_.job()->Read(psaAudioData); });
}

STDMETHODIMP CAudioConnector::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  return ComCall([&] {
    const StreamFormat target = connection_.job()->target();
    *pnSamplesPerSec = target.rate;
    *pnChannels = target.channels;
  });
}

STDMETHODIMP CAudioConnector::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  *pnSamples = 0;
  return ComCall([&] { return connection_.GetSampleCount(pnSamples); });
}

STDMETHODIMP CAudioConnector::WriteAudio(SAFEARRAY* psaAudioData) {
  return ComCall([&] { return connection_.job()->Write(psaAudioData); });
}

STDMETHODIMP CAudioConnector::QueryIsReady(LONG* pbReady) {
  if (pbReady == nullptr) return E_POINTER;
  return ComCall([&] { *pbReady = connection_.job()->queue().HasRoom() ? 1 : 0; });
}

MARLINDA_DEFINE_CLASS(CAudioConnector)

}  // namespace marlinda
