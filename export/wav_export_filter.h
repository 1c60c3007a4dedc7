// CWavExportFilter: writes the audio of a reader into a RIFF WAV file, as a task.
#pragma once

#include "core/filter_task.h"
#include "core/resource.h"
#include "export/wav_export_job.h"

namespace marlinda {

// One object serves one export: Initialize, settings, Start, then poll until the task has ended, or
// Cancel. Sample width is taken at Start; metadata, ACID data, labels and markers when the last
// sample is written, so they may be set until then.
//
// Errors that the task meets while it runs are not reported: a full disk leaves a truncated file,
// and what a reader fails to deliver is written as silence.
class CWavExportFilter final
    : public FilterTask<CWavExportFilter, WavExportJob, ICoreTask, IExportFilter, ILabelSupport,
                        IMetaDataWriter, ISectionMarkerSupport, IAcidWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CWavExportFilter;
  static constexpr SHORT kMerit = 200;
  static constexpr UINT kNameText = IDS_SAVING;
  static constexpr UINT kFilterTexts[] = {IDS_WAV_FILTER};
  static constexpr char kPatterns[] = "*.wav";

  CWavExportFilter();

  // ICoreTask. Start is E_FAIL while the task runs and where file or reader are missing; a Cancel
  // before Start stays in force, and the file then has no samples.
  STDMETHODIMP Start() override;

  // IExportFilter. Initialize is E_FAIL while the task runs. Where it cannot create the file, the
  // object has none afterwards, also when an earlier call had made one.
  STDMETHODIMP QuerySupportsExtension(BSTR bstrExtension, VARIANT_BOOL* pbSupported) override;
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioReader* pReader) override;
  STDMETHODIMP SetBitsPerSample(SHORT nBitsPerSample) override;
  STDMETHODIMP QueryHasSettingsDlg(BSTR bstrExtension, VARIANT_BOOL* pbHasSettings) override;
  STDMETHODIMP ShowSettingsDlg(BSTR bstrExtension, ULONG nHwndParent) override;
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
  SHORT bits_per_sample_ = 16;
  bool is_float_ = false;  // the settings dialog alone changes it
};

}  // namespace marlinda
