#include "import/dshow_import.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "core/apartment.h"
#include "core/com_ptr.h"
#include "core/resource.h"
#include "core/sample_array.h"
#include "core/text.h"
#include "import/dshow_stream.h"
#include "import/file_source.h"
#include "import/hand_out.h"
#include "import/sound_examiner.h"

namespace marlinda {
namespace {

constexpr char kPatterns[] = "*.wav;*.aif;*.aiff;*.mp3;*.mpg;*.mpeg;*.wma;*.au;*.avi;*.wmv";
// Below the Ogg Vorbis import, which may read the same files.
constexpr SHORT kMerit = 100;
constexpr DWORD kPollMilliseconds = 100;
constexpr DWORD kDecoderPatience = 15000;
// Of one block, over all channels.
constexpr std::size_t kBlockSamples = 16384;

// What is known of a file that can be imported.
struct Source {
  std::wstring file_name;
  FileSource file;
  SoundFacts facts;
  PcmFormat format;  // of the decoded samples
  std::int64_t total = 0;
};

// What the filters of the system tell of a file.
struct Answer {
  bool decoded = false;
  PcmFormat format;
  std::int64_t total = 0;
};

// Asks the filters of the system whether they can decode the file; on a thread of its own, because
// a graph must not live in the apartment of the host, and because some decoders wait for ever for
// what a damaged file lacks. Such a file is refused, and the thread left behind.
bool AskFilters(Source& source) {
  const auto answer = std::make_shared<Answer>();
  WorkerThread worker;
  Check(worker.Start([answer, file_name = source.file_name] {
    const Apartment apartment(COINIT_MULTITHREADED);
    Check(apartment.result());
    const auto stream = DShowStream::Open(file_name);
    if (stream == nullptr) return;
    *answer = {true, stream->format(), stream->total_frames()};
  }));
  // A decoder without a threading model of its own is made on the host's first thread, which may
  // be this one.
  worker.AwaitServingCalls(kDecoderPatience);
  if (worker.IsRunning()) {
    worker.Detach();
    return false;
  }
  source.format = answer->format;
  source.total = answer->total;
  return answer->decoded;
}

void MakeAnsi(MetaData& data) {
  for (std::string* text : {&data.title, &data.artist, &data.album, &data.year, &data.genre}) {
    *text = Utf8ToAnsi(*text);
  }
}

// S_FALSE when the file cannot be opened, E_FAIL when it cannot be imported.
HRESULT OpenSource(const wchar_t* file_name, Source& source) {
  source.file_name = file_name != nullptr ? file_name : L"";
  if (!source.file.Open(source.file_name)) return S_FALSE;
  source.facts = ExamineSound(source.file);
  if (source.facts.utf8) MakeAnsi(source.facts.meta_data);
  if (source.facts.refused) return E_FAIL;
  if (!source.facts.pcm) return AskFilters(source) ? S_OK : E_FAIL;
  source.format = source.facts.pcm->format;
  source.total = source.facts.pcm->frames;
  return S_OK;
}

LONG AverageBytesPerSec(const Source& source) {
  const double rate = source.format.samples_per_sec;
  auto frame_bytes = static_cast<double>(source.format.FrameBytes());
  if (source.facts.pcm) {
    frame_bytes = static_cast<double>(source.facts.pcm->FrameBytes());
  } else if (source.total > 0) {
    frame_bytes = static_cast<double>(source.file.size()) / static_cast<double>(source.total);
  }
  return static_cast<LONG>(std::min<double>(rate * frame_bytes, std::numeric_limits<LONG>::max()));
}

}  // namespace

// What one run needs and tells. The worker holds it too, and outlives the COM object when the last
// reference to that is released on the worker.
struct CDShowImport::Run {
  // Set by the apartment's thread before the worker starts and untouched by it until the end.
  ComPtr<IAudioWriter> writer;
  PcmFormat format;
  LONG average_bytes_per_sec = 0;
  bool started = false;

  // The worker's own from its start on.
  std::unique_ptr<Source> source;

  std::atomic<bool> cancelled = false;
  std::atomic<__int64> total = 0;
  std::atomic<__int64> position = 0;

  void Import();
  void WriteSamplesOf(FileSource& file, const PcmData& pcm, IAudioWriter* target);
  void WriteDecoded(const Source& decoded, IAudioWriter* target);
  void WriteBuffer(std::span<const std::byte> bytes, SampleArray& block, IAudioWriter* target);
};

// The results of the writer's methods are not checked: a failing writer misses samples, and its
// owner knows why.
void CDShowImport::Run::Import() {
  // Closes the file with the run, so that it can be moved or deleted as soon as the task has ended.
  const std::unique_ptr<Source> own = std::move(source);
  // A writer that holds this filter in turn, as an audio connector does, is let go with it.
  const ComPtr<IAudioWriter> target = std::move(writer);
  target->SetFormat(format.samples_per_sec, format.channels);
  target->OpenDevice();
  // The device that was opened is closed, whatever happens in between.
  ComCall([&] {
    if (own->facts.pcm) {
      WriteSamplesOf(own->file, *own->facts.pcm, target.Get());
    } else {
      WriteDecoded(*own, target.Get());
    }
    return S_OK;
  });
  target->CloseDevice();
}

void CDShowImport::Run::WriteSamplesOf(FileSource& file, const PcmData& pcm, IAudioWriter* target) {
  const auto channels = static_cast<std::size_t>(format.channels);
  const std::size_t most = std::max(kBlockSamples / channels, std::size_t{1});
  SampleArray block(most * channels);
  std::vector<std::byte> scratch;
  while (position < total) {
    const auto left = static_cast<std::uint64_t>(total - position);
    const auto frames = static_cast<std::size_t>(std::min<std::uint64_t>(left, most));
    block.Resize(frames * channels);
    const std::size_t there = ReadSamples(file, pcm, position, block.samples(), scratch);
    // An error of the disk.
    if (there == 0) return;
    block.Resize(there);
    target->WriteAudio(block.get());
    position += static_cast<__int64>(there / channels);
    if (cancelled) return;
  }
}

void CDShowImport::Run::WriteDecoded(const Source& decoded, IAudioWriter* target) {
  const Apartment apartment(COINIT_MULTITHREADED);
  Check(apartment.result());
  const auto stream = DShowStream::Open(decoded.file_name);
  // The format that was announced stays true, also when other filters have been installed since.
  if (stream == nullptr || stream->format() != format) return;
  SampleArray block(kBlockSamples);
  std::vector<std::byte> bytes;
  while (!cancelled && stream->Read(bytes, cancelled)) WriteBuffer(bytes, block, target);
  // The length was an estimate; now it is known.
  if (stream->has_ended_well() && position > 0) total = position.load();
}

// Writes what one buffer of the graph holds, in blocks that are not too large.
void CDShowImport::Run::WriteBuffer(std::span<const std::byte> bytes, SampleArray& block,
                                    IAudioWriter* target) {
  const std::size_t frame_bytes = format.FrameBytes();
  const auto channels = static_cast<std::size_t>(format.channels);
  const std::size_t most = std::max(kBlockSamples / channels, std::size_t{1});
  do {
    const std::size_t frames = std::min(bytes.size() / frame_bytes, most);
    block.Resize(frames * channels);
    DecodeSamples(format, bytes, block.samples());
    bytes = bytes.subspan(frames * frame_bytes);
    target->WriteAudio(block.get());
    position += static_cast<__int64>(frames);
  } while (bytes.size() >= frame_bytes && !cancelled);
}

CDShowImport::~CDShowImport() {
  if (run_ != nullptr) run_->cancelled = true;
}

STDMETHODIMP CDShowImport::QueryCanLoad(BSTR bstrFileName) {
  return ComCall([&] {
    Source source;
    return OpenSource(bstrFileName, source);
  });
}

STDMETHODIMP CDShowImport::Initialize(BSTR bstrFileName, IAudioWriter* pWriter) {
  if (worker_.IsRunning()) return E_FAIL;
  return ComCall([&] {
    std::string file_name = ToAnsi(bstrFileName);
    auto run = std::make_shared<Run>();
    run->source = std::make_unique<Source>();
    if (OpenSource(bstrFileName, *run->source) != S_OK) return E_FAIL;
    run->writer = pWriter;
    run->format = run->source->format;
    run->total = run->source->total;
    run->average_bytes_per_sec = AverageBytesPerSec(*run->source);
    facts_ = run->source->facts;
    file_name_ = std::move(file_name);
    run_ = std::move(run);
    return S_OK;
  });
}

STDMETHODIMP CDShowImport::GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) {
  return ComCall([&] {
    return HandOut({{pbstrFilterString, TheModule().LoadText(IDS_DSHOW_FILTER)},
                    {pbstrExtensions, kPatterns}});
  });
}

STDMETHODIMP CDShowImport::GetSourceSampleCount(__int64* pnSampleCount) {
  if (pnSampleCount == nullptr) return E_POINTER;
  *pnSampleCount = run_ != nullptr ? run_->total.load() : 0;
  return S_OK;
}

STDMETHODIMP CDShowImport::GetMerit(SHORT* pnMerit) {
  if (pnMerit == nullptr) return E_POINTER;
  *pnMerit = kMerit;
  return S_OK;
}

STDMETHODIMP CDShowImport::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  *pnSamplesPerSec = run_ != nullptr ? run_->format.samples_per_sec : 0;
  *pnChannels = run_ != nullptr ? run_->format.channels : SHORT{0};
  return S_OK;
}

STDMETHODIMP CDShowImport::GetBitsPerSample(SHORT* pnBitsPerSample) {
  if (pnBitsPerSample == nullptr) return E_POINTER;
  *pnBitsPerSample = run_ != nullptr ? run_->format.bits : SHORT{0};
  return S_OK;
}

STDMETHODIMP CDShowImport::GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) {
  if (pnAvgBytesPerSec == nullptr) return E_POINTER;
  *pnAvgBytesPerSec = run_ != nullptr ? run_->average_bytes_per_sec : 0;
  return S_OK;
}

STDMETHODIMP CDShowImport::Start() {
  if (run_ == nullptr || run_->started || run_->writer == nullptr) return E_FAIL;
  const HRESULT hr = worker_.Start([run = run_] { run->Import(); });
  run_->started = SUCCEEDED(hr);
  return hr;
}

STDMETHODIMP CDShowImport::Cancel() {
  if (run_ != nullptr) run_->cancelled = true;
  worker_.PollUntilEnded(kPollMilliseconds);
  return S_OK;
}

STDMETHODIMP CDShowImport::QueryIsTaskRunning(VARIANT_BOOL* pbRunning) {
  if (pbRunning == nullptr) return E_POINTER;
  *pbRunning = worker_.IsRunning() ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

STDMETHODIMP CDShowImport::GetProgress(float* pfProgress) {
  if (pfProgress == nullptr) return E_POINTER;
  if (run_ == nullptr) return E_FAIL;
  const __int64 total = run_->total;
  if (total <= 0) return E_FAIL;
  // A compressed file may hold more than was estimated.
  const __int64 position = std::min<__int64>(run_->position, total);
  *pfProgress = static_cast<float>(static_cast<double>(position) / static_cast<double>(total));
  return S_OK;
}

STDMETHODIMP CDShowImport::GetName(BSTR* pbstrName) {
  return ComCall([&] {
    return HandOut({{pbstrName, Format(TheModule().LoadText(IDS_LOADING), file_name_)}});
  });
}

STDMETHODIMP CDShowImport::GetLabelCount(LONG* pnLabelCount) {
  if (pnLabelCount == nullptr) return E_POINTER;
  *pnLabelCount = static_cast<LONG>(facts_.labels.size());
  return S_OK;
}

STDMETHODIMP CDShowImport::GetLabel(LONG niLabel, __int64* pnPosition, BSTR* pbstrName) {
  if (pnPosition == nullptr || pbstrName == nullptr) return E_POINTER;
  *pbstrName = nullptr;
  if (static_cast<ULONG>(niLabel) >= facts_.labels.size()) return E_INVALIDARG;
  const SoundLabel& label = facts_.labels[static_cast<ULONG>(niLabel)];
  *pnPosition = label.position;
  return HandOut({{pbstrName, label.name}});
}

STDMETHODIMP CDShowImport::GetMetaData(BSTR* pbstrTitle, BSTR* pbstrArtist, BSTR* pbstrAlbum,
                                       BSTR* pbstrYear, BSTR* pbstrGenre) {
  const MetaData& data = facts_.meta_data;
  return HandOut({{pbstrTitle, data.title},
                  {pbstrArtist, data.artist},
                  {pbstrAlbum, data.album},
                  {pbstrYear, data.year},
                  {pbstrGenre, data.genre}});
}

STDMETHODIMP CDShowImport::SetFilename(BSTR bstrFileName) {
  return ComCall([&] {
    Source source;
    if (OpenSource(bstrFileName, source) != S_OK) return E_FAIL;
    facts_ = std::move(source.facts);
    return S_OK;
  });
}

STDMETHODIMP CDShowImport::GetMarkerCount(LONG* pnMarkerCount) {
  if (pnMarkerCount == nullptr) return E_POINTER;
  *pnMarkerCount = static_cast<LONG>(facts_.markers.size());
  return S_OK;
}

STDMETHODIMP CDShowImport::GetSectionMarker(LONG niSectionMarker, __int64* pnBegin, __int64* pnEnd,
                                            BSTR* pbstrName) {
  if (pnBegin == nullptr || pnEnd == nullptr || pbstrName == nullptr) return E_POINTER;
  *pbstrName = nullptr;
  if (static_cast<ULONG>(niSectionMarker) >= facts_.markers.size()) return E_INVALIDARG;
  const SoundMarker& marker = facts_.markers[static_cast<ULONG>(niSectionMarker)];
  *pnBegin = marker.begin;
  *pnEnd = marker.end;
  return HandOut({{pbstrName, marker.name}});
}

STDMETHODIMP CDShowImport::QueryAcidDataAvailable(VARIANT_BOOL* pbDataAvailable) {
  if (pbDataAvailable == nullptr) return E_POINTER;
  *pbDataAvailable = facts_.loop ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

STDMETHODIMP CDShowImport::GetAcidData(SHORT* pnRootNote, SHORT* pnMeterBeats,
                                       SHORT* pnMeterDelimiter, LONG* pnBeatCount, float* pfTempo) {
  const HRESULT hr =
      RequirePointers(pnRootNote, pnMeterBeats, pnMeterDelimiter, pnBeatCount, pfTempo);
  if (FAILED(hr)) return hr;
  if (!facts_.loop) return E_FAIL;
  *pnRootNote = static_cast<SHORT>(facts_.loop->root_note);
  *pnMeterBeats = facts_.loop->meter_beats;
  *pnMeterDelimiter = facts_.loop->meter_delimiter;
  *pnBeatCount = facts_.loop->beat_count;
  *pfTempo = facts_.loop->tempo;
  return S_OK;
}

MARLINDA_DEFINE_CLASS(CDShowImport)

}  // namespace marlinda
