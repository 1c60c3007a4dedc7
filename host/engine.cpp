#include "host/engine.h"

#include <cmath>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "core/import_section.h"
#include "host/file_name.h"
#include "host/filter_list.h"
#include "host/host_streams.h"
#include "host/progress.h"
#include "host/timecode.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr HRESULT kEndOfFile = static_cast<HRESULT>(0x80070026);

// An audio connector's Start and Cancel return E_NOTIMPL even on success.
void CheckTask(HRESULT hr) {
  if (hr != E_NOTIMPL) Check(hr);
}

// Starts the task and waits for its end. Returns false if the user has interrupted the task, which
// is then cancelled. The bar advances from `done` by `share`.
bool RunTask(ICoreTask* task, ProgressBar& bar, const Console& console, double done = 0,
             double share = 1) {
  constexpr DWORD kPollMilliseconds = 5;
  CheckTask(task->Start());
  for (;;) {
    VARIANT_BOOL running = VARIANT_FALSE;
    Check(task->QueryIsTaskRunning(&running));
    float progress = 0.0F;
    // Show the progress even if the task has ended: a short task can end before the first poll.
    if (SUCCEEDED(task->GetProgress(&progress))) bar.Show(done + share * progress);
    if (running == VARIANT_FALSE) return true;
    if (console.Interrupted()) {
      CheckTask(task->Cancel());
      return false;
    }
    console.Wait(kPollMilliseconds);
  }
}

HRESULT ReadOneFrame(IAudioReader* reader, __int64 position, SHORT channels) {
  const FloatArray frame(static_cast<std::size_t>(channels));
  return reader->ReadAudio(position, frame.get());
}

// Of the built-in filters that accept the file, returns the filter with the highest merit. Skips
// filters in the registry's list. The filter manager has tried them already, and a decoder that
// hangs costs fifteen seconds each time.
ComPtr<IImportFilter> AskBuiltInFilters(BSTR file) {
  const FilterList listed = ReadFilterList();
  ComPtr<IImportFilter> best;
  SHORT best_merit = -1;
  bool any = false;
  for (const BuiltInFilter& built_in : BuiltInFilters()) {
    ComPtr<IImportFilter> filter;
    if (FAILED(CreateInstance(*built_in.class_id, filter))) continue;
    any = true;
    if (listed.Holds(*built_in.class_id)) continue;
    SHORT merit = -1;
    if (filter->QueryCanLoad(file) == S_OK && SUCCEEDED(filter->GetMerit(&merit)) &&
        merit > best_merit) {
      best = filter;
      best_merit = merit;
    }
  }
  if (!any) {
    throw HostError(ExitStatus::kRegistration, "import filters",
                    "no listed filter reads the file, and no built-in filter can be created",
                    kRegistrationRemedy);
  }
  return best;
}

ComPtr<IImportFilter> ChooseFilter(const std::string& file, BSTR engine_name) {
  const auto manager = CreateObject<IFileFilterMgr>(CLSID_CFileFilterMgr, "CFileFilterMgr");
  ComPtr<IImportFilter> filter;
  Check(manager->CreateImportFilter(engine_name, filter.GetAddressOf()));
  if (!filter) filter = AskBuiltInFilters(engine_name);
  if (!filter) {
    throw HostError(ExitStatus::kInput, file, "no import filter reads this file",
                    "It may be damaged or misnamed; \"marlinda filters\" lists the supported "
                    "kinds.");
  }
  return filter;
}

// Sorts the parts and merges parts that overlap or touch.
std::vector<FrameRange> Separate(std::vector<FrameRange> parts) {
  std::ranges::sort(parts, {}, &FrameRange::begin);
  std::vector<FrameRange> separate;
  for (const FrameRange& part : parts) {
    if (!separate.empty() && part.begin <= separate.back().end) {
      separate.back().end = std::max(separate.back().end, part.end);
    } else {
      separate.push_back(part);
    }
  }
  return separate;
}

void AppendSilence(IEditedAudio* document, __int64 frames, const AudioFormat& format) {
  if (frames > 0) Check(document->AppendSegment(Silence(frames, format).Get(), 0, frames));
}

std::filesystem::path PathOf(const std::string& file) { return Widen(file); }

}  // namespace

void MakeFinite(std::span<float> samples) {
  for (float& sample : samples) {
    if (!std::isfinite(sample)) sample = std::isnan(sample) ? 0.0F : std::copysign(1.0F, sample);
  }
}

HostError NothingWritten(const std::string& subject) {
  return {ExitStatus::kInterrupted, subject, "interrupted; nothing was written"};
}

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

std::string ChannelCount(int channels) {
  return std::to_string(channels) + (channels == 1 ? " channel" : " channels");
}

std::string Describe(const AudioFormat& format) {
  return std::to_string(format.rate) + " Hz, " + ChannelCount(format.channels);
}

ComPtr<IEditedAudio> NewDocument(const AudioFormat& format, int bits) {
  auto document = CreateObject<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
  Check(document->SetFormat(format.rate, format.channels, static_cast<SHORT>(bits)));
  return document;
}

ComPtr<IAudioReader> Silence(__int64 frames, const AudioFormat& format) {
  const auto silence = CreateObject<INullReader>(CLSID_CNullReader, "CNullReader");
  Check(silence->Create(frames, format.rate, format.channels));
  return Query<IAudioReader>(silence.Get());
}

ComPtr<IAudioPool> NewPool() {
  auto pool = CreateObject<IAudioPool>(CLSID_CAudioPool, "CAudioPool");
  const HRESULT hr = TryPoolFiles(pool.Get());
  if (FAILED(hr)) throw Explain(hr, kTemporaryFolder, ExitStatus::kOutput);
  // A pool of floats stores the filter's samples unchanged.
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
  // The pool has no file for samples. Only WriteAudio reports the reason.
  const auto writer = Query<IAudioWriter>(pool);
  Check(writer->SetFormat(44100, 1));
  return writer->WriteAudio(FloatArray(1).get());
}

Source::Source(const std::string& file, IAudioWriter* target) : file_(file) {
  RequireReadable(file);
  engine_name_ = EngineNameOfInput(file);
  filter_ = ChooseFilter(file, Bstr(engine_name_).get());
  identity_ = IdentityOf(filter_.Get());
  if (target == nullptr) pool_ = NewPool();
  Initialize(target);
}

void Source::Initialize(IAudioWriter* target) {
  const auto own = target == nullptr ? Query<IAudioWriter>(pool_.Get()) : target;
  const HRESULT hr = filter_->Initialize(Bstr(engine_name_).get(), own.Get());
  if (hr == E_FAIL) {
    throw HostError(ExitStatus::kInput, file_, "the file is damaged or not of the kind it claims");
  }
  if (FAILED(hr)) throw Explain(hr, file_, ExitStatus::kInput);
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
  // Negative if the filter knows the length only after decoding.
  if (FAILED(filter_->GetSourceSampleCount(&frames)) || frames < 0) return std::nullopt;
  return frames;
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

void Source::Run(const Console& console) {
  announced_ = Frames().value_or(0);
  ProgressBar bar(console.Progress(), "Reading");
  if (!RunTask(Query<ICoreTask>(filter_.Get()).Get(), bar, console)) throw NothingWritten(file_);
}

ImportedAudio Source::Import(const Console& console) {
  Run(console);
  return TakeOfRun(console);
}

ImportedAudio Source::Stream(const SampleFunction& take, const Console& console,
                             const std::optional<FrameRange>& part) {
  ImportedAudio audio;
  std::exception_ptr failure;
  const bool floats = MayHoldFloats();
  const auto write = [&](const AudioFormat& format, SAFEARRAY* array) {
    if (failure || format.channels <= 0) return E_FAIL;
    try {
      const std::span<float> samples = SamplesOf(array);
      if (floats) MakeFinite(samples);
      take(format, samples);
      audio.format = format;
      audio.frames += static_cast<__int64>(samples.size()) / format.channels;
      return S_OK;
    } catch (...) {
      failure = std::current_exception();
      return E_FAIL;
    }
  };
  Initialize(WriteWith(write).Get());
  if (part) Select(*part);
  Run(console);
  if (failure) std::rethrow_exception(failure);
  if (!part) CheckRun(audio, console);
  return audio;
}

std::optional<ImportedAudio> Source::Expected() const {
  const auto section = TryQuery<IImportSection>(filter_.Get());
  const auto format = Format();
  const auto frames = Frames();
  if (!section || section->QueryCanSetSection() != S_OK || !format || !frames) return std::nullopt;
  return ImportedAudio{nullptr, *format, *frames};
}

void Source::Select(const FrameRange& part) {
  // Sets no section for the whole file, so that the result equals a full import. From a damaged
  // file, a section can deliver frames that a full import drops.
  if (part.end - part.begin == Frames()) return;
  const HRESULT hr =
      Query<IImportSection>(filter_.Get())->SetSection(part.begin, part.end - part.begin);
  if (FAILED(hr)) throw Explain(hr, file_, ExitStatus::kInput);
}

ImportedAudio Source::ImportParts(std::vector<FrameRange> parts, const Console& console) {
  const auto [none, format, frames] = Expected().value();
  parts = Separate(std::move(parts));
  __int64 total = 0;
  for (const FrameRange& part : parts) total += part.end - part.begin;
  if (total == frames) return Import(console);

  const auto document = NewDocument(format, 32);
  const auto task = Query<ICoreTask>(filter_.Get());
  ProgressBar bar(console.Progress(), "Reading");
  const auto whole = static_cast<double>(total);
  __int64 done = 0;
  __int64 end = 0;
  for (const FrameRange& part : parts) {
    if (done > 0) Initialize();
    Select(part);
    const __int64 length = part.end - part.begin;
    if (!RunTask(task.Get(), bar, console, static_cast<double>(done) / whole,
                 static_cast<double>(length) / whole)) {
      throw NothingWritten(file_);
    }
    const ImportedAudio take = LastTake(pool_.Get());
    if (take.frames != length) {
      Initialize();
      return Import(console);
    }
    TakeOfRun(console);
    AppendSilence(document.Get(), part.begin - end, format);
    Check(document->AppendSegment(take.reader.Get(), 0, length));
    done += length;
    end = part.end;
  }
  AppendSilence(document.Get(), frames - end, format);
  return {Query<IAudioReader>(document.Get()), format, frames};
}

ImportedAudio Source::StartImport(const FrameRange& part) {
  constexpr DWORD kPollMilliseconds = 5;
  const auto [none, format, frames] = Expected().value();
  const __int64 length = part.end - part.begin;
  Select(part);
  // The reader below needs the format now. The filter will set the same format again.
  Check(Query<IAudioWriter>(pool_.Get())->SetFormat(format.rate, format.channels));
  const auto take = CreateObject<IAudioPoolReader>(CLSID_CAudioPoolReader, "CAudioPoolReader");
  const __int64 bytes = length * format.channels * static_cast<__int64>(sizeof(float));
  Check(take->Create(pool_.Get(), 0, 0, bytes, 32));
  const auto task = Query<ICoreTask>(filter_.Get());
  Check(task->Start());
  const auto wait_and_read = [task](IAudioReader* reader, __int64 position, SAFEARRAY* array) {
    for (;;) {
      // Ask before the read. Otherwise the import could end between a failed read and the question,
      // and its last frames would be lost.
      VARIANT_BOOL running = VARIANT_FALSE;
      task->QueryIsTaskRunning(&running);
      if (running == VARIANT_FALSE) {
        // Frames that were not imported are silent. An error would make playback drop queued audio.
        std::ranges::fill(SamplesOf(array), 0.0F);
      }
      const HRESULT hr = reader->ReadAudio(position, array);
      if (hr != kEndOfFile) return hr;
      if (running == VARIANT_FALSE) return S_OK;
      Sleep(kPollMilliseconds);
    }
  };
  const auto reader = ReadWith(Query<IAudioReader>(take.Get()).Get(), wait_and_read);
  const auto document = NewDocument(format, 32);
  AppendSilence(document.Get(), part.begin, format);
  Check(document->AppendSegment(reader.Get(), 0, length));
  AppendSilence(document.Get(), frames - part.end, format);
  return {Query<IAudioReader>(document.Get()), format, frames};
}

std::optional<__int64> Source::PollImport(const Console& console) const {
  VARIANT_BOOL running = VARIANT_FALSE;
  Check(Query<ICoreTask>(filter_.Get())->QueryIsTaskRunning(&running));
  if (running != VARIANT_FALSE) return std::nullopt;
  return TakeOfRun(console).frames;
}

ImportedAudio Source::TakeOfRun(const Console& console) const {
  const ImportedAudio audio = LastTake(pool_.Get());
  // The import ignores failed writes, but they leave the pool's file shorter than its take.
  const HRESULT last =
      audio.frames > 0 ? ReadOneFrame(audio.reader.Get(), audio.frames - 1, audio.format.channels)
                       : S_OK;
  if (last == kEndOfFile) {
    throw HostError(ExitStatus::kOutput, kTemporaryFolder, "the disk is full",
                    "Free some space there, or name another folder in the registry value "
                    "\"Temporary\" of HKEY_CURRENT_USER\\Software\\Brevant\\Cutloom\\Directories.");
  }
  if (FAILED(last)) throw Explain(last, kTemporaryFolder, ExitStatus::kOutput);
  CheckRun(audio, console);
  return audio;
}

void Source::CheckRun(const ImportedAudio& audio, const Console& console) const {
  if (audio.frames <= 0 || audio.format.rate <= 0 || audio.format.channels <= 0) {
    throw HostError(ExitStatus::kInput, file_, "no audio could be decoded",
                    "The file may be damaged.");
  }
  // The length that the filter reports after the import may count only the decoded frames. So
  // `announced_`, the length before the import, is compared too. It may be an estimate, so a
  // shortfall of up to a second is ignored.
  const __int64 promised = std::max(Frames().value_or(0),
                                    audio.frames < announced_ - audio.format.rate ? announced_ : 0);
  const auto task = TryQuery<ICoreTask>(filter_.Get());
  if (audio.frames < promised) {
    console.Tell(file_ + ": only " + std::to_string(audio.frames) + " of " +
                 std::to_string(promised) + " frames could be decoded; the file seems damaged");
  } else if (float progress = 1; task && SUCCEEDED(task->GetProgress(&progress)) && progress < 1) {
    console.Tell(file_ + ": only the first " + std::to_string(audio.frames) +
                 " frames were read; the rest cannot be decoded, or has another sample rate or "
                 "number of channels");
  }
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

void FileExport::RequireRoom(__int64 frames, const AudioFormat& format, int bits) const {
  if (!is_wave_ || FitsWaveFile(frames, format.channels, bits)) return;
  throw HostError(ExitStatus::kOutput, file_, "a WAV file holds at most 4 GiB, and this needs more",
                  "Choose fewer bits, or cut the audio into several files.");
}

WaveFileFacts FileExport::Run(IAudioReader* reader, int bits, const Console& console,
                              ICoreTask* driver, bool floats) {
  AudioFormat format;
  __int64 frames = 0;
  Check(reader->GetFormat(&format.rate, &format.channels));
  Check(reader->GetSampleCount(&frames));
  RequireRoom(frames, format, bits);

  // Check this before an existing file is truncated.
  if (console.Interrupted()) throw NothingWritten(file_);

  const Console::Finishing finishing;
  const OpenReader open(reader);
  const bool clamps = floats || (is_wave_ && bits > 16);
  const ComPtr<IAudioReader> source = clamps ? ClampSamples(reader) : reader;
  const HRESULT hr = filter_->Initialize(Bstr(EngineNameOfOutput(file_)).get(), source.Get());
  if (FAILED(hr)) throw Explain(hr, file_, ExitStatus::kOutput);
  Check(filter_->SetBitsPerSample(static_cast<SHORT>(bits)));
  HandOver();
  const auto own_task = Query<ICoreTask>(filter_.Get());
  ProgressBar bar(console.Progress(), "Writing");
  bool finished = false;
  try {
    finished = RunTask(driver != nullptr ? driver : own_task.Get(), bar, console);
  } catch (const HResultError& error) {
    throw Explain(error.code(), file_, ExitStatus::kOutput);
  }

  const std::optional<WaveFileFacts> facts = Examine();
  if (finished && facts && (!is_wave_ || HoldsFrames(*facts, frames))) return *facts;
  if (!finished && facts) {
    const std::string part =
        is_wave_ ? FormatDuration(facts->data_bytes / facts->block_align, format.rate) : "part";
    throw HostError(ExitStatus::kInterrupted, file_,
                    "interrupted; the file is valid and holds the first " + part);
  }
  Remove();
  if (!finished) throw NothingWritten(file_);
  throw HostError(ExitStatus::kOutput, file_,
                  "the file could not be written whole, so it was removed",
                  "The disk may be full: free some space there, or choose another disk.");
}

void FileExport::Remove() const {
  std::error_code ignored;
  std::filesystem::remove(PathOf(file_), ignored);
}

void FileExport::HandOver() {
  const auto& [tags, annotations, acid] = texts_;
  Check(Query<IMetaDataWriter>(filter_.Get())
            ->SetMetaData(Bstr(tags.title).get(), Bstr(tags.artist).get(), Bstr(tags.album).get(),
                          Bstr(tags.year).get(), Bstr(tags.genre).get()));
  if (!is_wave_) return;
  AddAnnotations(filter_.Get(), annotations);
  if (!acid) return;
  Check(Query<IAcidWriter>(filter_.Get())
            ->SetAcidData(static_cast<SHORT>(acid->root_note), acid->meter_beats,
                          acid->meter_delimiter, acid->beat_count, acid->tempo));
}

std::optional<WaveFileFacts> FileExport::Examine() const {
  if (!is_wave_) {
    // If the export fails, the filter removes the file. A file that exists is therefore valid.
    std::error_code error;
    const auto bytes = std::filesystem::file_size(PathOf(file_), error);
    if (error) return std::nullopt;
    return WaveFileFacts{.bytes = static_cast<std::int64_t>(bytes)};
  }
  std::ifstream file(PathOf(file_), std::ios::binary);
  return ExamineWaveFile(file);
}

}  // namespace marlinda
