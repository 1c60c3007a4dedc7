// CDShowImport: imports a file into an audio writer, as a task. Decodes WAV, AIFF, AU and MPEG
// audio itself. Windows Media, AVI, MPEG program streams and WAV with a rare compression need a
// graph of the system's DirectShow filters. All other files are refused.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/annotation_support.h"
#include "core/file_access.h"
#include "core/handle.h"
#include "core/resource.h"
#include "core/sample_array.h"
#include "import/byte_source.h"
#include "import/dshow_stream.h"
#include "import/import_task.h"
#include "import/mpeg_stream.h"
#include "import/sound_examiner.h"
#include "import/sound_file_info.h"

namespace marlinda {

// A file on disk, open for reading. Other programs may read and write the file meanwhile.
class FileSource final : public ByteSource {
 public:
  // Returns false if the file cannot be opened or is not on disk. Call Open once.
  bool Open(const std::wstring& name) noexcept {
    file_.Reset(CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size = {};
    if (!file_ || GetFileType(file_.get()) != FILE_TYPE_DISK ||
        !GetFileSizeEx(file_.get(), &size)) {
      return false;
    }
    size_ = static_cast<std::uint64_t>(size.QuadPart);
    return true;
  }

  std::uint64_t size() const override { return size_; }
  std::size_t Read(std::uint64_t offset, std::span<std::byte> out) override {
    return ReadAt(file_.get(), static_cast<std::int64_t>(offset), out).count;
  }

 private:
  FileHandle file_;
  std::uint64_t size_ = 0;
};

// A file that can be imported.
struct DShowSource {
  std::wstring file_name;
  FileSource file;
  SoundFileInfo info;
  std::unique_ptr<MpegStream> mpeg;  // for MPEG audio; reads `file`
  PcmFormat format;                  // format of the decoded samples
  std::int64_t total = 0;
  std::int64_t first = 0;  // first frame to import
};

using DShowImportJob = ImportJob<DShowSource>;

namespace {

// Returns S_FALSE if the file cannot be opened, and E_FAIL if the file cannot be imported.
HRESULT OpenSource(const wchar_t* file_name, DShowSource& source) {
  source.file_name = file_name != nullptr ? file_name : L"";
  if (!source.file.Open(source.file_name)) return S_FALSE;
  source.info = ExamineSound(source.file);
  if (source.info.utf8) source.info.tags = ToAnsi(source.info.tags);
  if (source.info.refused) return E_FAIL;
  if (source.info.pcm) {
    source.format = source.info.pcm->format;
    source.total = source.info.pcm->frames;
  } else if (source.info.mpeg) {
    source.mpeg = MpegStream::Open(source.file, *source.info.mpeg);
    if (source.mpeg == nullptr) return E_FAIL;
    source.format = {source.mpeg->samples_per_sec(), source.mpeg->channels(), 16, false};
  } else {
    const auto stream = DShowStream::Open(source.file_name);
    if (stream == nullptr) return E_FAIL;
    source.format = stream->format();
    source.total = stream->total_frames();
  }
  return S_OK;
}

LONG AverageBytesPerSec(const DShowSource& source) {
  const double rate = source.format.samples_per_sec;
  auto frame_bytes = static_cast<double>(source.format.FrameBytes());
  if (source.info.pcm) {
    frame_bytes = source.info.pcm->BytesPerFrame();
  } else if (source.total > 0) {
    frame_bytes = static_cast<double>(source.file.size()) / static_cast<double>(source.total);
  }
  return static_cast<LONG>(std::min<double>(rate * frame_bytes, std::numeric_limits<LONG>::max()));
}

// Returns at least 1.
std::size_t FramesPerBlock(const PcmFormat& format) {
  return std::max(kImportBlockSamples / static_cast<std::size_t>(format.channels), std::size_t{1});
}

// At the end of a run, replaces the estimated length. After a complete run, the length is the
// position. After an error, the length exceeds the position, so that progress stays below 1.
void NoteEnd(bool ended_well, DShowImportJob& job) {
  const __int64 position = job.position;
  if (ended_well && position > 0) {
    job.total = position;
  } else if (!ended_well && job.total <= position) {
    job.total = position + 1;
  }
}

void WriteSamplesOf(FileSource& file, const PcmData& pcm, std::int64_t first, DShowImportJob& job,
                    IAudioWriter* target) {
  const auto channels = static_cast<std::size_t>(job.format.channels);
  const std::size_t most = FramesPerBlock(job.format);
  SampleArray block(most * channels);
  std::vector<std::byte> scratch;
  while (job.position < job.total) {
    const auto left = static_cast<std::uint64_t>(job.total - job.position);
    const std::size_t room = most - static_cast<std::uint64_t>(first + job.position) % most;
    const auto frames = static_cast<std::size_t>(std::min<std::uint64_t>(left, room));
    block.Resize(frames * channels);
    const std::size_t samples =
        ReadSamples(file, pcm, first + job.position, block.samples(), scratch);
    // 0 samples mean a read error.
    if (samples == 0) return;
    block.Resize(samples);
    target->WriteAudio(block.get());
    job.position += static_cast<__int64>(samples / channels);
    if (job.cancelled) return;
  }
}

void WriteSamplesOf(MpegStream& stream, DShowImportJob& job, IAudioWriter* target) {
  const auto channels = static_cast<std::size_t>(job.format.channels);
  std::vector<std::int16_t> codes(FramesPerBlock(job.format) * channels);
  SampleArray block(codes.size());
  do {
    const std::size_t samples = stream.Read(codes);
    if (samples == 0) break;
    block.Resize(samples);
    DecodeSamples(job.format, std::as_bytes(std::span(codes)), block.samples());
    target->WriteAudio(block.get());
    job.position += static_cast<__int64>(samples / channels);
  } while (!job.cancelled);
  NoteEnd(stream.has_ended_well(), job);
}

// Writes one buffer of the graph in blocks of at most FramesPerBlock frames.
void WriteBuffer(std::span<const std::byte> bytes, SampleArray& block, DShowImportJob& job,
                 IAudioWriter* target) {
  const std::size_t frame_bytes = job.format.FrameBytes();
  do {
    const std::size_t frames = std::min(bytes.size() / frame_bytes, FramesPerBlock(job.format));
    block.Resize(frames * static_cast<std::size_t>(job.format.channels));
    DecodeSamples(job.format, bytes, block.samples());
    bytes = bytes.subspan(frames * frame_bytes);
    target->WriteAudio(block.get());
    job.position += static_cast<__int64>(frames);
  } while (bytes.size() >= frame_bytes && !job.cancelled);
}

void WriteDecoded(const std::wstring& file_name, DShowImportJob& job, IAudioWriter* target) {
  const auto stream = DShowStream::Open(file_name);
  // A filter that was installed after Initialize may deliver a different format.
  if (stream == nullptr || stream->format() != job.format) return NoteEnd(false, job);
  SampleArray block(kImportBlockSamples);
  std::vector<std::byte> bytes;
  while (!job.cancelled && stream->Read(bytes, job.cancelled)) {
    WriteBuffer(bytes, block, job, target);
  }
  NoteEnd(stream->has_ended_well(), job);
}

}  // namespace

// Each run needs its own Initialize, which opens the file. At its end, the run closes the file.
//
// Metadata, labels, section markers and loop data are read-only. They come from the file that
// Initialize or SetFilename opened last.
class CDShowImport final
    : public AnnotationSupport<
          CDShowImport,
          ImportTask<CDShowImport, DShowImportJob, IImportFilter, IExFormatInfo, ICoreTask,
                     ILabelSupport, IMetaDataReader, ISectionMarkerSupport, IAcidReader>> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CDShowImport;

  // Lower than the merit of the Ogg Vorbis import, which wins if both filters accept a file.
  static constexpr SHORT kMerit = 100;
  static constexpr UINT kNameText = IDS_LOADING;
  static constexpr UINT kFilterTexts[] = {IDS_DSHOW_FILTER};
  static constexpr char kPatterns[] =
      "*.wav;*.aif;*.aiff;*.mp3;*.mpg;*.mpeg;*.wma;*.au;*.avi;*.wmv";
  static constexpr bool kReadsNotes = true;

  // IImportFilter. Returns S_FALSE if the file cannot be opened. Returns E_FAIL if no decoder
  // accepts the file, the file has no sound, or its header contradicts itself.
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override {
    return ComCall([&] {
      DShowSource source;
      return OpenSource(bstrFileName, source);
    });
  }
  // Fails with E_FAIL while a run is active, or if QueryCanLoad does not return S_OK for the file.
  // A failure leaves the object unchanged.
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override {
    if (worker_.IsRunning()) return E_FAIL;
    return ComCall([&] {
      std::string file_name = ToAnsi(bstrFileName);
      const auto source = std::make_shared<DShowSource>();
      if (OpenSource(bstrFileName, *source) != S_OK) return E_FAIL;
      if (source->mpeg) source->total = source->mpeg->CountFrames();
      const auto job = std::make_shared<DShowImportJob>();
      job->format = source->format;
      job->average_bytes_per_sec = AverageBytesPerSec(*source);
      job->total = source->total;
      job->source = source;
      job->writer = pWriter;
      SetInfo(source->info);
      file_name_ = std::move(file_name);
      job_ = job;
      return S_OK;
    });
  }

  // IMetaDataReader. Fails with E_FAIL unless QueryCanLoad returns S_OK for the file. A failure
  // leaves the object unchanged.
  STDMETHODIMP SetFilename(BSTR bstrFileName) override {
    return ComCall([&] {
      DShowSource source;
      if (OpenSource(bstrFileName, source) != S_OK) return E_FAIL;
      SetInfo(std::move(source.info));
      return S_OK;
    });
  }

  // IAcidReader
  STDMETHODIMP QueryAcidDataAvailable(VARIANT_BOOL* pbDataAvailable) override {
    return HandOut(pbDataAvailable, info_.acid.has_value());
  }
  // Fails with E_FAIL if the file has no loop data.
  STDMETHODIMP GetAcidData(SHORT* pnRootNote, SHORT* pnMeterBeats, SHORT* pnMeterDelimiter,
                           LONG* pnBeatCount, float* pfTempo) override {
    const AcidData acid = info_.acid.value_or(AcidData());
    const HRESULT hr = SetOut(pnRootNote, static_cast<SHORT>(acid.root_note), pnMeterBeats,
                              acid.meter_beats, pnMeterDelimiter, acid.meter_delimiter, pnBeatCount,
                              acid.beat_count, pfTempo, acid.tempo);
    return SUCCEEDED(hr) && !info_.acid ? E_FAIL : hr;
  }

  // AnnotationSupport
  template <class Use>
  HRESULT WithNotes(Use&& use) {
    return ComCall([&] { return std::forward<Use>(use)(info_); });
  }

  static void WriteBlocks(DShowImportJob& job, DShowSource& source, IAudioWriter* target) {
    if (source.info.pcm) {
      WriteSamplesOf(source.file, *source.info.pcm, source.first, job, target);
    } else if (source.mpeg) {
      WriteSamplesOf(*source.mpeg, job, target);
    } else {
      WriteDecoded(source.file_name, job, target);
    }
  }
  // Returns 0, which disables sections, for MPEG audio and for files that the system's filters
  // decode. MPEG decoding depends on the data before the section. The filters only estimate the
  // length.
  static __int64 SectionFrames(const DShowImportJob& job) {
    return job.source->info.pcm ? job.source->total : 0;
  }
  static bool Select(DShowImportJob& job, __int64 first, __int64) {
    job.source->first = first;
    return true;
  }

 private:
  void SetInfo(SoundFileInfo info) {
    info_ = std::move(info);
    tags_ = info_.tags;
  }

  SoundFileInfo info_;
};

MARLINDA_DEFINE_CLASS(CDShowImport)

}  // namespace marlinda
