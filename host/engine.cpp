#include "host/engine.h"

#include <filesystem>
#include <fstream>
#include <string_view>

#include "host/clamped_reader.h"
#include "host/file_name.h"
#include "host/filter_list.h"
#include "host/progress.h"
#include "host/timecode.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr HRESULT kEndOfFile = static_cast<HRESULT>(0x80070026);

// Start and Cancel of an audio connector return E_NOTIMPL, also on success.
void CheckTask(HRESULT hr) {
  if (hr != E_NOTIMPL) Check(hr);
}

// Starts the task and waits for its end. False when it was interrupted and cancelled.
bool RunTask(ICoreTask* task, const std::string& title, const Console& console) {
  constexpr DWORD kPollMilliseconds = 20;
  ProgressBar bar(console.Progress(), title);
  CheckTask(task->Start());
  for (;;) {
    VARIANT_BOOL running = VARIANT_FALSE;
    Check(task->QueryIsTaskRunning(&running));
    float progress = 0.0F;
    // Before the check for the end, because a short task runs and ends between two polls.
    if (SUCCEEDED(task->GetProgress(&progress))) bar.Show(progress);
    if (running == VARIANT_FALSE) return true;
    if (console.Interrupted()) {
      CheckTask(task->Cancel());
      return false;
    }
    console.Wait(kPollMilliseconds);
  }
}

// Opens a reader for a run of reads and closes it afterwards.
HRESULT ReadOneFrame(IAudioReader* reader, __int64 position, SHORT channels) {
  const FloatArray frame(static_cast<std::size_t>(channels));
  return reader->ReadAudio(position, frame.get());
}

// The filter that the manager chooses; null when it has none for the file.
ComPtr<IImportFilter> AskManager(BSTR file) {
  const auto manager = CreateObject<IFileFilterMgr>(CLSID_CFileFilterMgr, "CFileFilterMgr");
  ComPtr<IImportFilter> filter;
  Check(manager->CreateImportFilter(file, filter.GetAddressOf()));
  return filter;
}

// The built-in filter of the highest merit that accepts the file, chosen as the manager chooses.
ComPtr<IImportFilter> AskBuiltInFilters(BSTR file) {
  ComPtr<IImportFilter> best;
  SHORT best_merit = -1;
  bool any = false;
  for (const BuiltInFilter& built_in : BuiltInFilters()) {
    ComPtr<IImportFilter> filter;
    if (FAILED(CreateInstance(*built_in.class_id, filter))) continue;
    any = true;
    SHORT merit = -1;
    if (filter->QueryCanLoad(file) == S_OK && SUCCEEDED(filter->GetMerit(&merit)) &&
        merit > best_merit) {
      best = filter;
      best_merit = merit;
    }
  }
  if (!any) {
    throw HostError(ExitStatus::kRegistration, "import filters",
                    "none is listed for the file, and none of the built-in ones can be created",
                    kRegistrationRemedy);
  }
  return best;
}

ComPtr<IImportFilter> ChooseFilter(const std::string& file, BSTR engine_name) {
  ComPtr<IImportFilter> filter = AskManager(engine_name);
  if (!filter) filter = AskBuiltInFilters(engine_name);
  if (!filter) {
    throw HostError(ExitStatus::kInput, file, "no import filter reads this file",
                    "It may be damaged, or of another kind than its name says; \"marlinda "
                    "filters\" lists the kinds that can be read.");
  }
  return filter;
}

std::filesystem::path PathOf(const std::string& file) { return Widen(file); }

}  // namespace

FilterIdentity IdentityOf(IUnknown* object) {
  const auto provider = TryQuery<IProvideClassInfo>(object);
  ComPtr<ITypeInfo> info;
  TYPEATTR* attributes = nullptr;
  if (!provider || FAILED(provider->GetClassInfo(info.GetAddressOf())) ||
      FAILED(info->GetTypeAttr(&attributes))) {
    return {};
  }
  FilterIdentity identity = {"", ClassIdText(attributes->guid)};
  info->ReleaseTypeAttr(attributes);
  Bstr name;
  if (SUCCEEDED(info->GetDocumentation(MEMBERID_NIL, name.Receive(), nullptr, nullptr, nullptr))) {
    identity.class_name = name.utf8();
  }
  return identity;
}

ComPtr<IEditedAudio> NewDocument(const AudioFormat& format, int bits) {
  auto document = CreateObject<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
  Check(document->SetFormat(format.rate, format.channels, static_cast<SHORT>(bits)));
  return document;
}

ComPtr<IAudioPool> NewPool() {
  auto pool = CreateObject<IAudioPool>(CLSID_CAudioPool, "CAudioPool");
  const HRESULT hr = TryPoolFiles(pool.Get());
  if (FAILED(hr)) throw Explain(hr, kTemporaryFolder, ExitStatus::kOutput);
  // Floats keep every bit of what a filter decodes.
  Check(pool->SetBitDepth(32, 0));
  return pool;
}

ImportedAudio LastTake(IAudioPool* pool) {
  ImportedAudio audio;
  const HRESULT hr = pool->CreateLastReader(audio.reader.GetAddressOf());
  if (FAILED(hr)) throw Explain(hr, kTemporaryFolder, ExitStatus::kOutput);
  if (hr == S_OK) {
    Check(audio.reader->GetFormat(&audio.format.rate, &audio.format.channels));
    Check(audio.reader->GetSampleCount(&audio.frames));
  }
  return audio;
}

Annotations ReadAnnotations(IUnknown* object) {
  Annotations annotations;
  Bstr name;
  LONG count = 0;
  if (const auto labels = TryQuery<ILabelSupport>(object)) {
    if (FAILED(labels->GetLabelCount(&count))) count = 0;
    for (LONG i = 0; i < count; ++i) {
      __int64 position = 0;
      if (FAILED(labels->GetLabel(i, &position, name.Receive()))) break;
      annotations.labels.push_back({position, name.utf8()});
    }
  }
  if (const auto markers = TryQuery<ISectionMarkerSupport>(object)) {
    if (FAILED(markers->GetMarkerCount(&count))) count = 0;
    for (LONG i = 0; i < count; ++i) {
      __int64 begin = 0;
      __int64 end = 0;
      if (FAILED(markers->GetSectionMarker(i, &begin, &end, name.Receive()))) break;
      annotations.markers.push_back({{begin, end}, name.utf8()});
    }
  }
  return annotations;
}

void AddAnnotations(IUnknown* object, const Annotations& annotations) {
  const auto labels = Query<ILabelSupport>(object);
  for (const Label& label : annotations.labels) {
    Check(labels->AddLabel(label.position, Bstr(label.name).get()));
  }
  const auto markers = Query<ISectionMarkerSupport>(object);
  for (const auto& [section, name] : annotations.markers) {
    Check(markers->AddSectionMarker(section.begin, section.end, Bstr(name).get()));
  }
}

HRESULT TryPoolFiles(IAudioPool* pool) {
  __int64 audio = 0;
  __int64 peaks = 0;
  const HRESULT hr = pool->GetFileHandles(&audio, &peaks);
  if (FAILED(hr) || audio != 0) return hr;
  // The pool has no file for samples. Only a write reports the reason.
  const auto writer = Query<IAudioWriter>(pool);
  Check(writer->SetFormat(44100, 1));
  SAFEARRAY* const block = SafeArrayCreateVector(VT_R4, 0, 1);
  const HRESULT reason = writer->WriteAudio(block);
  if (block != nullptr) SafeArrayDestroy(block);
  return reason;
}

Source::Source(const std::string& file, IAudioWriter* target) : file_(file) {
  RequireReadable(file);
  const Bstr engine_name(EngineNameOfInput(file));
  filter_ = ChooseFilter(file, engine_name.get());
  identity_ = IdentityOf(filter_.Get());

  ComPtr<IAudioWriter> writer = target;
  if (!writer) {
    pool_ = NewPool();
    writer = Query<IAudioWriter>(pool_.Get());
  }
  const HRESULT hr = filter_->Initialize(engine_name.get(), writer.Get());
  if (hr == E_FAIL) {
    throw HostError(ExitStatus::kInput, file, "the file is damaged or not of the kind it claims");
  }
  if (FAILED(hr)) throw Explain(hr, file, ExitStatus::kInput);
}

std::optional<AudioFormat> Source::Format() const {
  const auto info = TryQuery<IExFormatInfo>(filter_.Get());
  AudioFormat format;
  if (!info || FAILED(info->GetFormat(&format.rate, &format.channels))) return std::nullopt;
  return format;
}

std::optional<int> Source::BitsPerSample() const {
  const auto info = TryQuery<IExFormatInfo>(filter_.Get());
  SHORT bits = 0;
  if (!info || FAILED(info->GetBitsPerSample(&bits))) return std::nullopt;
  return bits;
}

std::optional<std::int64_t> Source::BitRate() const {
  const auto info = TryQuery<IExFormatInfo>(filter_.Get());
  LONG bytes_per_second = 0;
  if (!info || FAILED(info->GetAvgBytesPerSec(&bytes_per_second))) return std::nullopt;
  return std::int64_t{bytes_per_second} * 8;
}

std::optional<__int64> Source::Frames() const {
  __int64 frames = 0;
  // Negative when the filter knows the length only after decoding.
  if (FAILED(filter_->GetSourceSampleCount(&frames)) || frames < 0) return std::nullopt;
  return frames;
}

bool Source::IsIncomplete() const {
  float progress = 1.0F;
  const auto task = TryQuery<ICoreTask>(filter_.Get());
  return task && SUCCEEDED(task->GetProgress(&progress)) && progress < 1.0F;
}

Tags Source::ReadTags() const {
  const auto reader = TryQuery<IMetaDataReader>(filter_.Get());
  Bstr title;
  Bstr artist;
  Bstr album;
  Bstr year;
  Bstr genre;
  if (!reader || FAILED(reader->GetMetaData(title.Receive(), artist.Receive(), album.Receive(),
                                            year.Receive(), genre.Receive()))) {
    return {};
  }
  return {title.utf8(), artist.utf8(), album.utf8(), year.utf8(), genre.utf8()};
}

std::optional<AcidData> Source::ReadAcidData() const {
  const auto reader = TryQuery<IAcidReader>(filter_.Get());
  VARIANT_BOOL available = VARIANT_FALSE;
  LONG beat_count = 0;
  AcidData acid;
  SHORT root_note = 0;
  if (!reader || FAILED(reader->QueryAcidDataAvailable(&available)) || available == VARIANT_FALSE ||
      FAILED(reader->GetAcidData(&root_note, &acid.meter_beats, &acid.meter_delimiter, &beat_count,
                                 &acid.tempo))) {
    return std::nullopt;
  }
  acid.root_note = root_note;
  acid.beat_count = beat_count;
  return acid;
}

ImportedAudio Source::Import(const Console& console) {
  if (!RunTask(Query<ICoreTask>(filter_.Get()).Get(), "Reading", console)) {
    throw HostError(ExitStatus::kInterrupted, file_, "interrupted; nothing was written");
  }
  const ImportedAudio audio = LastTake(pool_.Get());
  if (audio.frames <= 0 || audio.format.rate <= 0 || audio.format.channels <= 0) {
    throw HostError(ExitStatus::kInput, file_, "no audio could be decoded",
                    "The file may be damaged.");
  }
  // The import passes over failed writes, but then the pool's file is shorter than its take.
  const HRESULT last = ReadOneFrame(audio.reader.Get(), audio.frames - 1, audio.format.channels);
  if (last == kEndOfFile) {
    throw HostError(ExitStatus::kOutput, kTemporaryFolder, "the disk is full",
                    "Free some space there, or name another folder in the registry value "
                    "\"Temporary\" of HKEY_CURRENT_USER\\Software\\Brevant\\Cutloom\\Directories.");
  }
  if (FAILED(last)) throw Explain(last, kTemporaryFolder, ExitStatus::kOutput);
  // Asked at the end, because the length of a compressed file may be an estimate until then.
  const std::optional<__int64> promised = Frames();
  if (promised && audio.frames < *promised) {
    console.Tell(file_ + ": only " + std::to_string(audio.frames) + " of " +
                 std::to_string(*promised) + " frames could be decoded; the file seems damaged");
  } else if (IsIncomplete()) {
    console.Tell(file_ + ": only the first " + std::to_string(audio.frames) +
                 " frames were read; the part behind them has another sample rate or number of "
                 "channels and is left out");
  }
  return audio;
}

FileExport::FileExport(const std::string& file, const std::vector<std::string>& inputs)
    : file_(file) {
  for (const auto& [id, name] : {std::pair{CLSID_CWavExportFilter, "CWavExportFilter"},
                                 std::pair{CLSID_CDShowExport, "CDShowExport"}}) {
    filter_ = CreateObject<IExportFilter>(id, name);
    is_wave_ = IsEqualCLSID(id, CLSID_CWavExportFilter);
    VARIANT_BOOL supported = VARIANT_FALSE;
    Check(filter_->QuerySupportsExtension(Bstr(ExtensionOf(file)).get(), &supported));
    if (supported != VARIANT_FALSE) {
      RequireWritablePlace(file, inputs);
      return;
    }
  }
  throw HostError(ExitStatus::kUsage, file, "files of this kind cannot be written",
                  "Choose a name that ends in .wav, .mp3 or .wma.");
}

WaveFileFacts FileExport::Run(IAudioReader* reader, int bits, const Console& console,
                              ICoreTask* driver) {
  AudioFormat format;
  __int64 frames = 0;
  Check(reader->GetFormat(&format.rate, &format.channels));
  Check(reader->GetSampleCount(&frames));
  if (is_wave_ && !FitsWaveFile(frames, format.channels, bits)) {
    throw HostError(ExitStatus::kOutput, file_,
                    "a WAV file holds at most 4 GiB, and this needs more",
                    "Choose fewer bits, or cut the audio into several files.");
  }

  // Before an existing file is emptied for nothing.
  if (console.Interrupted()) {
    throw HostError(ExitStatus::kInterrupted, file_, "interrupted; nothing was written");
  }

  const Console::Finishing finishing;
  const OpenReader open(reader);
  const ComPtr<IAudioReader> source = is_wave_ && bits > 16 ? ClampSamples(reader) : reader;
  const HRESULT hr = filter_->Initialize(Bstr(EngineNameOfOutput(file_)).get(), source.Get());
  if (FAILED(hr)) throw Explain(hr, file_, ExitStatus::kOutput);
  Check(filter_->SetBitsPerSample(static_cast<SHORT>(bits)));
  HandOver();
  const auto own_task = Query<ICoreTask>(filter_.Get());
  const bool finished = RunTask(driver != nullptr ? driver : own_task.Get(), "Writing", console);

  const std::optional<WaveFileFacts> facts = Examine();
  if (finished && facts && (!is_wave_ || HoldsFrames(*facts, frames))) return *facts;
  if (!finished && facts) {
    const std::string part =
        is_wave_ ? FormatDuration(facts->data_bytes / facts->block_align, format.rate) : "part";
    throw HostError(ExitStatus::kInterrupted, file_,
                    "interrupted; the file is valid and holds the first " + part);
  }
  std::error_code ignored;
  std::filesystem::remove(PathOf(file_), ignored);
  if (!finished) {
    throw HostError(ExitStatus::kInterrupted, file_, "interrupted; nothing was written");
  }
  throw HostError(ExitStatus::kOutput, file_,
                  "the file could not be written whole, so it was removed",
                  "The disk may be full: free some space there, or choose another disk.");
}

void FileExport::HandOver() {
  Check(Query<IMetaDataWriter>(filter_.Get())
            ->SetMetaData(Bstr(tags_.title).get(), Bstr(tags_.artist).get(),
                          Bstr(tags_.album).get(), Bstr(tags_.year).get(),
                          Bstr(tags_.genre).get()));
  if (!is_wave_) return;
  AddAnnotations(filter_.Get(), annotations_);
  if (acid_) {
    Check(Query<IAcidWriter>(filter_.Get())
              ->SetAcidData(static_cast<SHORT>(acid_->root_note), acid_->meter_beats,
                            acid_->meter_delimiter, acid_->beat_count, acid_->tempo));
  }
}

std::optional<WaveFileFacts> FileExport::Examine() const {
  if (!is_wave_) {
    // The filter removes a file that it could not write whole.
    std::error_code error;
    const auto bytes = std::filesystem::file_size(PathOf(file_), error);
    if (error) return std::nullopt;
    return WaveFileFacts{.bytes = static_cast<std::int64_t>(bytes)};
  }
  std::ifstream file(PathOf(file_), std::ios::binary);
  return ExamineWaveFile(file);
}

}  // namespace marlinda
