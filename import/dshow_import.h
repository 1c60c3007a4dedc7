// CDShowImport: imports WAV, AIFF, AU and MP3 files, and Windows Media, AVI and MPEG files with the
// DirectShow filters of the system, as a task, into an audio writer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "core/annotation_support.h"
#include "core/resource.h"
#include "import/file_source.h"
#include "import/import_task.h"
#include "import/mpeg_stream.h"
#include "import/sound_file_info.h"

namespace marlinda {

// A file that can be imported.
struct DShowSource {
  std::wstring file_name;
  FileSource file;
  SoundFileInfo info;
  std::unique_ptr<MpegStream> mpeg;  // of MPEG audio; reads `file`
  PcmFormat format;                  // of the decoded samples
  std::int64_t total = 0;
  std::int64_t first = 0;  // of the frames that are wanted
};

using DShowImportJob = ImportJob<DShowSource>;

// One Initialize serves one run, as with the other import filters.
//
// WAV, AIFF, AU and MPEG audio files are read without the system's filters, except WAV files with a
// rare compression. These, Windows Media, AVI and MPEG program streams go through a filter graph.
// Files of all other kinds are refused.
//
// Metadata, labels, section markers and loop data are those of the file named last, by Initialize
// or by SetFilename. They can be read, not edited.
class CDShowImport final
    : public AnnotationSupport<
          CDShowImport,
          ImportTask<CDShowImport, DShowImportJob, IImportFilter, IExFormatInfo, ICoreTask,
                     ILabelSupport, IMetaDataReader, ISectionMarkerSupport, IAcidReader>> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CDShowImport;

  // Below the Ogg Vorbis import, which may read the same files.
  static constexpr SHORT kMerit = 100;
  static constexpr UINT kNameText = IDS_LOADING;
  static constexpr UINT kFilterTexts[] = {IDS_DSHOW_FILTER};
  static constexpr char kPatterns[] =
      "*.wav;*.aif;*.aiff;*.mp3;*.mpg;*.mpeg;*.wma;*.au;*.avi;*.wmv";
  static constexpr bool kReadsNotes = true;

  // IImportFilter. A file that cannot be opened is S_FALSE; E_FAIL is one that nothing can decode,
  // that has no sound or whose header contradicts itself.
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override;
  // E_FAIL where QueryCanLoad is not S_OK, and while a run is active; the object then stays as it
  // was.
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override;

  // IMetaDataReader
  // E_FAIL where QueryCanLoad is not S_OK; everything then stays as it was.
  STDMETHODIMP SetFilename(BSTR bstrFileName) override;

  // IAcidReader
  STDMETHODIMP QueryAcidDataAvailable(VARIANT_BOOL* pbDataAvailable) override {
    return HandOut(pbDataAvailable, info_.acid.has_value());
  }
  // E_FAIL when there is none.
  STDMETHODIMP GetAcidData(SHORT* pnRootNote, SHORT* pnMeterBeats, SHORT* pnMeterDelimiter,
                           LONG* pnBeatCount, float* pfTempo) override;

  // AnnotationSupport
  template <class Use>
  HRESULT WithNotes(Use&& use) {
    return ComCall([&] { return std::forward<Use>(use)(info_); });
  }

  static void WriteBlocks(DShowImportJob& job, DShowSource& source, IAudioWriter* target);
  // MPEG audio depends on all frames before, and the length that a filter reports is an estimate.
  static __int64 SectionFrames(const DShowImportJob& job) {
    return job.source->info.pcm ? job.source->total : 0;
  }
  static bool Select(DShowImportJob& job, __int64 first, __int64) {
    job.source->first = first;
    return true;
  }

 private:
  void SetInfo(SoundFileInfo info);

  SoundFileInfo info_;
};

}  // namespace marlinda
