// CDShowImport: imports WAV, AIFF, AU, MP3 and whatever else the DirectShow filters of the system
// decode, as a task, into an audio writer.
#pragma once

#include <marlinda.h>

#include <memory>
#include <string>

#include "core/com_object.h"
#include "core/worker_thread.h"
#include "import/sound_facts.h"

namespace marlinda {

// One Initialize serves one run, as with the other import filters.
//
// Uncompressed samples of WAV and AIFF files and the samples of AU files are read from the file
// itself, exactly and whatever filters are installed; everything else goes through a filter graph,
// which lives on the worker.
//
// Metadata, labels, section markers and loop data are those of the file named last, by Initialize
// or by SetFilename. They can be read, not edited.
class CDShowImport final
    : public Object<CDShowImport, IImportFilter, IExFormatInfo, ICoreTask, ILabelSupport,
                    IMetaDataReader, ISectionMarkerSupport, IAcidReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CDShowImport;

  CDShowImport() = default;
  // Cancels a run and waits for it.
  ~CDShowImport();

  // IImportFilter. A file that cannot be opened is S_FALSE; E_FAIL is one that nothing can decode,
  // that has no sound or whose header contradicts itself.
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override;
  // E_FAIL where QueryCanLoad is not S_OK, and while a run is active; the object then stays as it
  // was.
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override;
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override;
  // Exact for uncompressed files. Of others as the decoder estimates it, until the file has been
  // decoded to its end.
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override;
  STDMETHODIMP GetMerit(SHORT* pnMerit) override;

  // IExFormatInfo: all zeros before Initialize.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  // Of the decoded samples.
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override;
  // Of the file; the average over all of it, pictures included, when it is compressed.
  STDMETHODIMP GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) override;

  // ICoreTask
  // E_FAIL without a successful Initialize before it.
  STDMETHODIMP Start() override;
  // Returns when the run has ended. A Cancel between Initialize and Start is not forgotten: that
  // run writes at most one block.
  STDMETHODIMP Cancel() override;
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override;
  // Never exceeds 1. Stays below 1 when an error ended the run early.
  STDMETHODIMP GetProgress(float* pfProgress) override;
  STDMETHODIMP GetName(BSTR* pbstrName) override;

  // ILabelSupport
  STDMETHODIMP AddLabel(__int64, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP GetLabelCount(LONG* pnLabelCount) override;
  STDMETHODIMP GetLabel(LONG niLabel, __int64* pnPosition, BSTR* pbstrName) override;
  STDMETHODIMP SetLabel(LONG, __int64, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveLabel(LONG) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveAllLabels() override { return E_NOTIMPL; }

  // IMetaDataReader
  STDMETHODIMP GetMetaData(BSTR* pbstrTitle, BSTR* pbstrArtist, BSTR* pbstrAlbum, BSTR* pbstrYear,
                           BSTR* pbstrGenre) override;
  // E_FAIL where QueryCanLoad is not S_OK; everything then stays as it was.
  STDMETHODIMP SetFilename(BSTR bstrFileName) override;

  // ISectionMarkerSupport
  STDMETHODIMP AddSectionMarker(__int64, __int64, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP GetMarkerCount(LONG* pnMarkerCount) override;
  STDMETHODIMP GetSectionMarker(LONG niSectionMarker, __int64* pnBegin, __int64* pnEnd,
                                BSTR* pbstrName) override;
  STDMETHODIMP SetSectionMarker(LONG, __int64, __int64, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveSectionMarker(LONG) override { return E_NOTIMPL; }
  STDMETHODIMP RemoveAllSectionMarkers() override { return E_NOTIMPL; }

  // IAcidReader
  STDMETHODIMP QueryAcidDataAvailable(VARIANT_BOOL* pbDataAvailable) override;
  // E_FAIL when there is none.
  STDMETHODIMP GetAcidData(SHORT* pnRootNote, SHORT* pnMeterBeats, SHORT* pnMeterDelimiter,
                           LONG* pnBeatCount, float* pfTempo) override;

 private:
  struct Run;

  // The latest successful Initialize; shared with the worker.
  std::shared_ptr<Run> run_;
  std::string file_name_;
  SoundFacts facts_;
  WorkerThread worker_;
};

}  // namespace marlinda
