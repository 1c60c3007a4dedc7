#include "task/audio_connector.h"

#include <utility>

namespace marlinda {

CAudioConnector::CAudioConnector() : connection_(std::make_shared<Connection>()) {}

std::shared_ptr<Connection> CAudioConnector::Current() const {
  const std::lock_guard lock(mutex_);
  return connection_;
}

HRESULT CAudioConnector::SetUp(Parties parties, IUnknown* export_filter,
                               const StreamFormat& target) {
  if (!target.IsKnown()) return E_INVALIDARG;
  parties.export_filter = TryQuery<IExportFilter>(export_filter);
  parties.export_task = TryQuery<ICoreTask>(export_filter);
  if (!parties.export_filter || !parties.export_task) return E_NOINTERFACE;
  auto connection = std::make_shared<Connection>(std::move(parties), target);
  Current()->Replace();
  const std::lock_guard lock(mutex_);
  // What is released here is destroyed after the lock.
  connection_.swap(connection);
  return S_OK;
}

STDMETHODIMP CAudioConnector::SetupImportToExport(IUnknown* punkImportFilter,
                                                  IUnknown* punkExportFilter, LONG nSamplesPerSec,
                                                  SHORT nChannels) {
  if (punkImportFilter == nullptr || punkExportFilter == nullptr) return E_POINTER;
  return ComCall([&] {
    Parties parties;
    parties.import_filter = TryQuery<IImportFilter>(punkImportFilter);
    parties.import_task = TryQuery<ICoreTask>(punkImportFilter);
    if (!parties.import_filter || !parties.import_task) return E_NOINTERFACE;
    return SetUp(std::move(parties), punkExportFilter, {nSamplesPerSec, nChannels});
  });
}

STDMETHODIMP CAudioConnector::SetupReaderToExport(IUnknown* punkAudioReader,
                                                  IUnknown* punkExportFilter, LONG nSamplesPerSec,
                                                  SHORT nChannels) {
  if (punkAudioReader == nullptr || punkExportFilter == nullptr) return E_POINTER;
  return ComCall([&] {
    if (IsSameObject(punkAudioReader, OuterUnknown())) return E_INVALIDARG;
    Parties parties;
    parties.reader = TryQuery<IAudioReader>(punkAudioReader);
    if (!parties.reader) return E_NOINTERFACE;
    return SetUp(std::move(parties), punkExportFilter, {nSamplesPerSec, nChannels});
  });
}

STDMETHODIMP CAudioConnector::Start() {
  ComCall([&] {
    Current()->Start();
    return S_OK;
  });
  return E_NOTIMPL;
}

STDMETHODIMP CAudioConnector::Cancel() {
  ComCall([&] {
    Current()->Cancel();
    return S_OK;
  });
  return E_NOTIMPL;
}

STDMETHODIMP CAudioConnector::QueryIsTaskRunning(VARIANT_BOOL* pbRunning) {
  if (pbRunning == nullptr) return E_POINTER;
  return ComCall([&] { return Current()->QueryIsRunning(pbRunning); });
}

STDMETHODIMP CAudioConnector::GetProgress(FLOAT* pfProgress) {
  if (pfProgress == nullptr) return E_POINTER;
  return ComCall([&] { return Current()->GetProgress(pfProgress); });
}

STDMETHODIMP CAudioConnector::GetName(BSTR* pbstrName) {
  if (pbstrName == nullptr) return E_POINTER;
  *pbstrName = SysAllocString(L"");
  return *pbstrName != nullptr ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CAudioConnector::ReadAudio(__int64, SAFEARRAY* psaAudioData) {
  return ComCall([&] { return Current()->Read(psaAudioData); });
}

STDMETHODIMP CAudioConnector::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  return ComCall([&] {
    const StreamFormat target = Current()->target();
    *pnSamplesPerSec = target.rate;
    *pnChannels = target.channels;
    return S_OK;
  });
}

STDMETHODIMP CAudioConnector::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  *pnSamples = 0;
  return ComCall([&] { return Current()->GetSampleCount(pnSamples); });
}

STDMETHODIMP CAudioConnector::WriteAudio(SAFEARRAY* psaAudioData) {
  return ComCall([&] { return Current()->Write(psaAudioData); });
}

STDMETHODIMP CAudioConnector::QueryIsReady(LONG* pbReady) {
  if (pbReady == nullptr) return E_POINTER;
  return ComCall([&] {
    *pbReady = Current()->HasRoom() ? 1 : 0;
    return S_OK;
  });
}

MARLINDA_DEFINE_CLASS(CAudioConnector)

}  // namespace marlinda
