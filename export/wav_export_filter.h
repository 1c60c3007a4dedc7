// CWavExportFilter: writes the audio of a reader into a RIFF WAV file, as a task.
#pragma once

#include <marlinda.h>

#include <memory>
#include <string>

#include "core/com_object.h"
#include "core/worker_thread.h"
#include "export/wav_export_job.h"

namespace marlinda {

// One object serves one export: Initialize, settings, Start, then poll until the task has ended, or
// Cancel. Sample width is taken at Start; metadata, ACID data, labels and markers when the last
// sample is written, so they may be set until then.
//
// Errors that the task meets while it runs are not reported: a full disk leaves a truncated file,
// and what a reader fails to deliver is written as silence.
class CWavExportFilter final
    : public Object<CWavExportFilter, ICoreTask, IExportFilter, ILabelSupport, IMetaDataWriter,
                    ISectionMarkerSupport, IAcidWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CWavExportFilter;

  CWavExportFilter();
  ~CWavExportFilter();

  // ICoreTask. Start is E_FAIL while the task runs and where file or reader are missing; a Cancel
  // before Start stays in force, and the file then has no samples.
  STDMETHODIMP Start() override;
  STDMETHODIMP Cancel() override;
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override;
  STDMETHODIMP GetProgress(FLOAT* pfProgress) override;
  STDMETHODIMP GetName(BSTR* pbstrName) override;

  // IExportFilter. Initialize is E_FAIL while the task runs. Where it cannot create the file, the
  // object has none afterwards, also when an earlier call had made one.
  STDMETHODIMP QuerySupportsExtension(BSTR bstrExtension, VARIANT_BOOL* pbSupported) override;
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioReader* pReader) override;
  STDMETHODIMP SetBitsPerSample(SHORT nBitsPerSample) override;
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override;
  STDMETHODIMP QueryHasSettingsDlg(BSTR bstrExtension, VARIANT_BOOL* pbHasSettings) override;
  STDMETHODIMP ShowSettingsDlg(BSTR bstrExtension, ULONG nHwndParent) override;
  STDMETHODIMP GetMerit(SHORT* pnMerit) override;
  STDMETHODIMP QueryIsLossy(VARIANT_BOOL* pbLossy) override;

  // ILabelSupport
  STDMETHODIMP AddLabel(__int64 nPosition, BSTR bstrName) override;
  STDMETHODIMP GetLabelCount(LONG* pnLabelCount) override;
  STDMETHODIMP GetLabel(LONG, __int64*, BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP SetLabel(LONG, __int64, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveLabel(LONG) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveAllLabels() override;

  // IMetaDataWriter
  STDMETHODIMP SetMetaData(BSTR bstrTitle, BSTR bstrArtist, BSTR bstrAlbum, BSTR bstrYear,
                           BSTR bstrGenre) override;

  // ISectionMarkerSupport
  STDMETHODIMP AddSectionMarker(__int64 nBegin, __int64 nEnd, BSTR bstrName) override;
  STDMETHODIMP GetMarkerCount(LONG* pnMarkerCount) override;
  STDMETHODIMP GetSectionMarker(LONG, __int64*, __int64*, BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP SetSectionMarker(LONG, __int64, __int64, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveSectionMarker(LONG) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveAllSectionMarkers() override;

  // IAcidWriter
  STDMETHODIMP SetAcidData(SHORT nRootNote, SHORT nMeterBeats, SHORT nMeterDelimiter,
                           LONG nBeatCount, FLOAT fTempo) override;

 private:
  const std::shared_ptr<WavExportJob> job_;
  WorkerThread worker_;
  std::string file_name_;
  SHORT bits_per_sample_ = 16;
  bool is_float_ = false;  // chosen in the settings dialog alone, and kept by SetBitsPerSample
};

}  // namespace marlinda
