// COggImport: imports an Ogg Vorbis file, as a task, into an audio writer.
#pragma once

#include <marlinda.h>

#include <memory>
#include <string>

#include "core/com_object.h"
#include "core/worker_thread.h"
#include "import/vorbis_comments.h"

namespace marlinda {

// One Initialize serves one run: it opens the file, Start decodes it to its end and closes it. A
// new Initialize readies the same object for another file.
class COggImport final
    : public Object<COggImport, IImportFilter, IExFormatInfo, ICoreTask, IMetaDataReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_COggImport;

  COggImport() = default;
  // Cancels a run and waits for it.
  ~COggImport();

  // IImportFilter
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override;
  // E_FAIL when the file cannot be opened or is no Ogg Vorbis file; writer and name are kept then,
  // but there is nothing to start. E_FAIL, and no change, while a run is active.
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override;
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override;
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override;
  STDMETHODIMP GetMerit(SHORT* pnMerit) override;

  // IExFormatInfo: all zeros before Initialize.
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  // 16, the width that all decoding goes through.
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override;
  // Of the compressed source.
  STDMETHODIMP GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) override;

  // ICoreTask
  // E_FAIL without a successful Initialize before it.
  STDMETHODIMP Start() override;
  // Returns when the run has ended. A Cancel between Initialize and Start is not forgotten: that
  // run ends after its first block.
  STDMETHODIMP Cancel() override;
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override;
  // Never goes back and never exceeds 1. Stays below 1 when a damaged file, a change of format or a
  // decoder without memory ended the run early.
  STDMETHODIMP GetProgress(float* pfProgress) override;
  STDMETHODIMP GetName(BSTR* pbstrName) override;

  // IMetaDataReader
  STDMETHODIMP GetMetaData(BSTR* pbstrTitle, BSTR* pbstrArtist, BSTR* pbstrAlbum, BSTR* pbstrYear,
                           BSTR* pbstrGenre) override;
  // Reads the metadata of a file that is not to be imported. E_FAIL when it cannot be opened or is
  // no Ogg Vorbis file; the metadata then stays as it was.
  STDMETHODIMP SetFilename(BSTR bstrFileName) override;

 private:
  struct Run;

  // The latest successful Initialize; shared with the worker.
  std::shared_ptr<Run> run_;
  std::string file_name_;
  MetaData metadata_;
  WorkerThread worker_;
};

}  // namespace marlinda
