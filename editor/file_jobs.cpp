#include "editor/file_jobs.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <utility>

#include "core/sample_count.h"
#include "host/host_streams.h"
#include "host/file_name.h"
#include "host/timecode.h"
#include "host/wide_text.h"

namespace marlinda::editor {
namespace {

namespace fs = std::filesystem;

fs::path PathOf(const std::string& file) { return Widen(file); }

std::string NameOf(const std::string& file) { return Narrow(PathOf(file).filename().wstring()); }

void Remove(const std::string& file) {
  std::error_code ignored;
  if (!file.empty()) fs::remove(PathOf(file), ignored);
}

// Start and Cancel of an audio connector return E_NOTIMPL even on success.
void CheckTask(HRESULT hr) {
  if (hr != E_NOTIMPL) Check(hr);
}

}  // namespace

float FileJob::progress() const {
  float done = 0;
  if (!task_ || FAILED(task_->GetProgress(&done))) done = 0;
  return (static_cast<float>(step_) + std::clamp(done, 0.0F, 1.0F)) / static_cast<float>(steps_);
}

void FileJob::Start(ComPtr<ICoreTask> task) {
  task_ = std::move(task);
  CheckTask(task_->Start());
}

bool FileJob::Poll() {
  VARIANT_BOOL running = VARIANT_FALSE;
  if (task_) Check(task_->QueryIsTaskRunning(&running));
  if (running != VARIANT_FALSE) return true;
  ++step_;
  return Continue();
}

void FileJob::Cancel() {
  if (task_) task_->Cancel();
  task_.Reset();
}

ImportJob::ImportJob(const std::string& file, std::optional<AudioFormat> wanted)
    : FileJob("Reading " + NameOf(file)), file_(file), wanted_(wanted) {
  Begin(file);
  material_.tags = source_->ReadTags();
  material_.annotations = source_->ReadAnnotations();
}

void ImportJob::Begin(const std::string& file) {
  source_.reset();
  pool_ = NewPool();
  source_.emplace(file, Query<IAudioWriter>(pool_.Get()).Get());
  Start(Query<ICoreTask>(source_->filter_object()));
}

bool ImportJob::Continue() {
  if (connector_) {
    // Until Cancel, connector and filters hold references to each other.
    FileJob::Cancel();
    connector_.Reset();
    Begin(converted_);
    return true;
  }
  TakeAudio();
  if (converted_.empty() && wanted_ &&
      (wanted_->rate != material_.format.rate || wanted_->channels != material_.format.channels)) {
    StartConversion();
    return true;
  }
  Cancel();
  return false;
}

void ImportJob::TakeAudio() {
  const ImportedAudio take = LastTake(pool_.Get());
  material_.reader = take.reader;
  material_.format = take.format;
  material_.frames = take.frames;
  if (material_.frames <= 0 || material_.format.rate <= 0 || material_.format.channels <= 0) {
    throw HostError(ExitStatus::kInput, file_, "no audio could be decoded",
                    "The file may be damaged: play it elsewhere, or use another copy.");
  }
  // The import ignores failed writes. They show because the pool's file is shorter than its take.
  const FloatArray last(static_cast<std::size_t>(material_.format.channels));
  if (FAILED(material_.reader->ReadAudio(material_.frames - 1, last.get()))) {
    throw HostError(ExitStatus::kOutput, kTemporaryFolder, "the disk is full",
                    "Free some space there and open the file again.");
  }
  // Read at the end, because the length of a compressed file may be an estimate until then.
  const std::optional<__int64> promised = source_->Frames();
  if (promised && material_.frames < *promised) {
    warning_ = "only " + FormatDuration(material_.frames, material_.format.rate) + " of " +
               FormatDuration(*promised, material_.format.rate) + " could be decoded";
  }
}

void ImportJob::StartConversion() {
  steps_ = 3;
  converted_ = Narrow((fs::temp_directory_path() /
                       ("marlinda-editor-" + std::to_string(GetCurrentProcessId()) + ".wav"))
                          .wstring());
  connector_ = CreateObject<IAudioConnector>(CLSID_CAudioConnector, "CAudioConnector");
  const auto filter = CreateObject<IExportFilter>(CLSID_CWavExportFilter, "CWavExportFilter");
  Check(connector_->SetupReaderToExport(material_.reader.Get(), filter.Get(), wanted_->rate,
                                        wanted_->channels));
  const auto clamped = ClampSamples(Query<IAudioReader>(connector_.Get()).Get());
  Check(filter->Initialize(Bstr(EngineNameOfOutput(converted_)).get(), clamped.Get()));
  constexpr SHORT kBits = 32;
  Check(filter->SetBitsPerSample(kBits));
  const LONG from = material_.format.rate;
  for (Label& label : material_.annotations.labels) {
    label.position = ConvertSampleCount(label.position, from, wanted_->rate);
  }
  for (auto& [section, text] : material_.annotations.markers) {
    section = {ConvertSampleCount(section.begin, from, wanted_->rate),
               ConvertSampleCount(section.end, from, wanted_->rate)};
  }
  Start(Query<ICoreTask>(connector_.Get()));
}

void ImportJob::Cancel() {
  FileJob::Cancel();
  source_.reset();
  connector_.Reset();
  Remove(std::exchange(converted_, ""));
}

std::wstring ExportJob::DialogFilter() {
  std::wstring types;
  for (const auto& [id, name] : {std::pair{CLSID_CWavExportFilter, "CWavExportFilter"},
                                 std::pair{CLSID_CDShowExport, "CDShowExport"}}) {
    const auto filter = CreateObject<IExportFilter>(id, name);
    Bstr text;
    Bstr extensions;
    Check(filter->GetFilterStrings(text.Receive(), extensions.Receive()));
    types += Widen(text.utf8());
  }
  return types;
}

ExportJob::ExportJob(const std::string& file, const Document& document, HWND owner)
    : FileJob("Writing " + NameOf(file)),
      file_(file),
      frames_(document.frames()),
      reader_(Query<IAudioReader>(document.audio())) {
  Check(reader_->OpenDevice());
  try {
    Begin(document, owner);
  } catch (...) {
    Cancel();
    throw;
  }
}

void ExportJob::Begin(const Document& document, HWND owner) {
  const Bstr kind(ExtensionOf(file_));
  for (const auto& [id, name] : {std::pair{CLSID_CWavExportFilter, "CWavExportFilter"},
                                 std::pair{CLSID_CDShowExport, "CDShowExport"}}) {
    auto filter = CreateObject<IExportFilter>(id, name);
    VARIANT_BOOL supported = VARIANT_FALSE;
    Check(filter->QuerySupportsExtension(kind.get(), &supported));
    if (supported == VARIANT_FALSE) continue;
    is_wave_ = IsEqualCLSID(id, CLSID_CWavExportFilter);
    filter_ = std::move(filter);
    break;
  }
  if (!filter_) {
    throw HostError(ExitStatus::kUsage, file_, "no export filter writes files of this kind",
                    "Choose a name that ends in .wav, .mp3 or .wma.");
  }
  RequireWritablePlace(file_, {});
  VARIANT_BOOL has_settings = VARIANT_FALSE;
  Check(filter_->QueryHasSettingsDlg(kind.get(), &has_settings));
  if (has_settings != VARIANT_FALSE) {
    Check(filter_->ShowSettingsDlg(kind.get(), static_cast<ULONG>(HandleToLong(owner))));
  }

  const fs::path path = PathOf(file_);
  const fs::path beside = path.parent_path() / (L"~" + path.filename().wstring());
  unfinished_ = Narrow(beside.wstring());
  // At 24 and 32 bits the engine writes full scale as the lowest code.
  const auto source = ClampSamples(reader_.Get());
  const HRESULT hr = filter_->Initialize(Bstr(EngineNameOfOutput(unfinished_)).get(), source.Get());
  if (FAILED(hr)) throw Explain(hr, file_, ExitStatus::kOutput);
  const Tags& tags = document.tags;
  Check(Query<IMetaDataWriter>(filter_.Get())
            ->SetMetaData(Bstr(tags.title).get(), Bstr(tags.artist).get(), Bstr(tags.album).get(),
                          Bstr(tags.year).get(), Bstr(tags.genre).get()));
  if (is_wave_) AddAnnotations(filter_.Get(), document.annotations());
  Start(Query<ICoreTask>(filter_.Get()));
}

bool ExportJob::Continue() {
  bool whole = false;
  if (is_wave_) {
    // The export does not report failed writes, so the file is checked.
    std::ifstream written(PathOf(unfinished_), std::ios::binary);
    const auto facts = ExamineWaveFile(written);
    whole = facts && HoldsFrames(*facts, frames_);
  } else {
    std::error_code ignored;
    whole = fs::file_size(PathOf(unfinished_), ignored) > 0 && !ignored;
  }
  FileJob::Cancel();
  filter_.Reset();
  if (whole && MoveFileExW(Widen(unfinished_).c_str(), Widen(file_).c_str(),
                           MOVEFILE_REPLACE_EXISTING) == 0) {
    const HRESULT hr = LastErrorResult();
    Cancel();
    throw Explain(hr, file_, ExitStatus::kOutput);
  }
  Cancel();
  if (!whole) {
    throw HostError(ExitStatus::kOutput, file_,
                    "the file could not be written whole, so it was removed",
                    "Free some space on the disk or choose another disk; a WAV file holds at most "
                    "4 GiB.");
  }
  return false;
}

void ExportJob::Cancel() {
  FileJob::Cancel();
  filter_.Reset();
  if (reader_) reader_->CloseDevice();
  reader_.Reset();
  Remove(std::exchange(unfinished_, ""));
}

}  // namespace marlinda::editor
