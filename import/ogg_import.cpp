// COggImport: imports an Ogg Vorbis file into an audio writer, as a task.
#include <array>
#include <cstdint>
#include <utility>

#include "core/resource.h"
#include "core/sample_array.h"
#include "core/samples/sample_converter.h"
#include "import/import_task.h"
#include "import/vorbis_stream.h"

namespace marlinda {
namespace {

constexpr SHORT kBitsPerSample = 16;

// Longer comments, such as pictures, are ignored.
constexpr std::size_t kMaxCommentBytes = std::size_t{1} << 20;

// Returns null if the file cannot be opened.
FilePointer OpenForReading(const std::string& name) noexcept {
  std::FILE* file = nullptr;
  return FilePointer(fopen_s(&file, name.c_str(), "rb") == 0 ? file : nullptr);
}

Tags ReadTags(const VorbisStream& stream) {
  Tags tags;
  for (const std::string_view comment : stream.Comments()) {
    if (comment.size() <= kMaxCommentBytes) ApplyVorbisComment(Utf8ToAnsi(comment), tags);
  }
  return tags;
}

}  // namespace

struct OggImportJob : ImportJob<VorbisStream> {
  __int64 readable = 0;  // frames before the first change of format
};

// Each run needs its own Initialize, which opens the file. At its end, the run closes the file. If
// a chained file changes its format, only the frames before the change are imported.
//
// Progress stays below 1 if a damaged file, a change of format or a lack of memory ends the run.
class COggImport final : public ImportTask<COggImport, OggImportJob, IImportFilter, IExFormatInfo,
                                           ICoreTask, IMetaDataReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_COggImport;
  // Higher than the merit of the DirectShow import, which loses if both filters accept a file.
  static constexpr SHORT kMerit = 200;
  static constexpr UINT kNameText = IDS_LOADING;
  static constexpr UINT kFilterTexts[] = {IDS_OGG_FILTER};
  static constexpr char kPatterns[] = "*.ogg";

  // IImportFilter
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override {
    return ComCall([&] {
      FilePointer file = OpenForReading(ToAnsi(bstrFileName));
      if (file == nullptr) return S_FALSE;
      return VorbisStream::Open(std::move(file)) != nullptr ? S_OK : E_FAIL;
    });
  }
  // Fails with E_FAIL if the file cannot be opened or is no Ogg Vorbis file, and with E_OUTOFMEMORY
  // if its decoder needs too much memory. The object then has the new writer and name, but Start
  // fails. During a run, Initialize fails with E_FAIL and changes nothing.
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override {
    if (worker_.IsRunning()) return E_FAIL;
    return ComCall([&] {
      job_ = std::make_shared<OggImportJob>();
      job_->writer = pWriter;
      file_name_ = ToAnsi(bstrFileName);
      std::shared_ptr<VorbisStream> stream = VorbisStream::Open(OpenForReading(file_name_));
      if (stream == nullptr) return E_FAIL;
      Tags tags = ReadTags(*stream);
      // Allocates the decoder's memory now, so that Initialize reports a lack of memory.
      stream->Prepare();
      tags_ = std::move(tags);
      job_->format = {stream->samples_per_sec(), stream->channels(), kBitsPerSample, false};
      job_->average_bytes_per_sec = stream->average_bytes_per_sec();
      job_->total = stream->total_frames();
      job_->readable = stream->readable_frames();
      job_->source = std::move(stream);
      return S_OK;
    });
  }
  // Returns the number of frames that a run imports. Progress also counts the frames after a change
  // of format, which are not imported.
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override {
    return SetOut(pnSampleCount, job_ != nullptr ? job_->readable : 0);
  }

  // IMetaDataReader. Reads the metadata of a file without importing the file. Fails with E_FAIL,
  // and keeps the old metadata, if the file cannot be opened or is no Ogg Vorbis file.
  STDMETHODIMP SetFilename(BSTR bstrFileName) override {
    return ComCall([&] {
      const auto stream = VorbisStream::Open(OpenForReading(ToAnsi(bstrFileName)));
      if (stream == nullptr) return E_FAIL;
      tags_ = ReadTags(*stream);
      return S_OK;
    });
  }

  static void WriteBlocks(OggImportJob& job, VorbisStream& source, IAudioWriter* target) {
    std::array<std::int16_t, kImportBlockSamples> codes;
    SampleArray block(kImportBlockSamples);
    do {
      const std::size_t samples = source.Read(codes);
      if (samples == 0) return;
      block.Resize(samples);
      ConvertPcmToFloat(std::as_bytes(std::span(codes)), block.samples(), kBitsPerSample);
      target->WriteAudio(block.get());
      job.position += static_cast<__int64>(samples) / job.format.channels;
    } while (!job.cancelled && job.position < job.total);
  }
  // Returns 0, which disables the import of sections, if the file changes its format. The progress
  // of a section would hide that the frames after the change are missing.
  static __int64 SectionFrames(const OggImportJob& job) {
    return job.source->total_frames() == job.readable ? job.readable : 0;
  }
  static bool Select(OggImportJob& job, __int64 first, __int64 count) {
    job.readable = count;
    return job.source->Select(first, count);
  }
};

MARLINDA_DEFINE_CLASS(COggImport)

}  // namespace marlinda
