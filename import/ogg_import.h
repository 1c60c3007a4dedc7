// COggImport: imports an Ogg Vorbis file, as a task, into an audio writer.
#pragma once

#include "core/resource.h"
#include "import/import_task.h"
#include "import/vorbis_stream.h"

namespace marlinda {

struct OggImportJob : ImportJob<VorbisStream> {
  __int64 readable = 0;  // frames before the first change of format
};

// One Initialize serves one run: it opens the file, Start decodes it to its end and closes it. A
// new Initialize readies the same object for another file.
//
// Progress stays below 1 when a damaged file, a change of format or a lack of memory ends the run.
class COggImport final : public ImportTask<COggImport, OggImportJob, IImportFilter, IExFormatInfo,
                                           ICoreTask, IMetaDataReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_COggImport;
  // Above the DirectShow import, which may read the same files.
  static constexpr SHORT kMerit = 200;
  static constexpr UINT kNameText = IDS_LOADING;
  static constexpr UINT kFilterTexts[] = {IDS_OGG_FILTER};
  static constexpr char kPatterns[] = "*.ogg";

  // IImportFilter
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override;
  // E_FAIL when the file cannot be opened or is no Ogg Vorbis file, E_OUTOFMEMORY when its decoder
  // takes too much memory; writer and name stay set then, but there is nothing to start. E_FAIL,
  // and no change, while a run is active.
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override;
  // Of a chain that changes its format, the frames before the change. The progress counts the whole
  // chain and so shows that a part is left out.
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override {
    return SetOut(pnSampleCount, job_ != nullptr ? job_->readable : 0);
  }

  // IMetaDataReader
  // Reads the metadata of a file that is not to be imported. E_FAIL when it cannot be opened or is
  // no Ogg Vorbis file; the metadata then stays as it was.
  STDMETHODIMP SetFilename(BSTR bstrFileName) override;

  static void WriteBlocks(OggImportJob& job, VorbisStream& source, IAudioWriter* target);
  // A chain that changes its format is imported whole, so that the part left out shows.
  static __int64 SectionFrames(const OggImportJob& job) {
    return job.source->total_frames() == job.readable ? job.readable : 0;
  }
  static bool Select(OggImportJob& job, __int64 first, __int64 count) {
    job.readable = count;
    return job.source->Select(first, count);
  }
};

}  // namespace marlinda
