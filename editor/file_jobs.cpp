#include "editor/file_jobs.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "host/converted_audio.h"
#include "host/file_name.h"
#include "host/host_streams.h"
#include "host/timecode.h"
#include "host/wide_text.h"

namespace marlinda::editor {
namespace {

namespace fs = std::filesystem;

fs::path PathOf(const std::string& file) { return Widen(file); }

void Remove(const std::string& file) {
  std::error_code ignored;
  if (!file.empty()) fs::remove(PathOf(file), ignored);
}

// All export filters. The first writes WAV files.
std::vector<ComPtr<IExportFilter>> ExportFilters() {
  return {CreateObject<IExportFilter>(CLSID_CWavExportFilter, "CWavExportFilter"),
          CreateObject<IExportFilter>(CLSID_CDShowExport, "CDShowExport")};
}

// Returns an unused file name in the folder of `file`.
std::string UnusedNameBeside(const std::string& file) {
  fs::path path = PathOf(file);
  std::error_code ignored;
  do {
    path.replace_filename(L"~" + path.filename().wstring());
  } while (fs::exists(path, ignored));
  return Narrow(path.wstring());
}

}  // namespace

FileJob::FileJob(const std::string& file)
    : file_(file), name_(Narrow(PathOf(file).filename().wstring())) {}

float FileJob::progress() const {
  float done = 0;
  if (!task_ || FAILED(task_->GetProgress(&done))) return 0;
  return std::clamp(done, 0.0F, 1.0F);
}

void FileJob::Start(ComPtr<ICoreTask> task) {
  task_ = std::move(task);
  const HRESULT hr = task_->Start();
  if (FAILED(hr)) throw Explain(hr, file_, ExitStatus::kFailure);
}

bool FileJob::Poll() {
  VARIANT_BOOL running = VARIANT_FALSE;
  if (task_) Check(task_->QueryIsTaskRunning(&running));
  return running != VARIANT_FALSE || Continue();
}

void FileJob::Cancel() {
  if (task_) task_->Cancel();
  task_.Reset();
}

ImportJob::ImportJob(const std::string& file, std::optional<AudioFormat> wanted)
    : FileJob(file), wanted_(wanted), pool_(NewPool()) {
  source_.emplace(file, Query<IAudioWriter>(pool_.Get()).Get());
  Start(Query<ICoreTask>(source_->filter_object()));
  material_.tags = source_->ReadTags();
  material_.annotations = source_->ReadAnnotations();
}

float ImportJob::progress() const {
  return conversion_ ? conversion_->progress() : FileJob::progress();
}

bool ImportJob::Continue() {
  if (conversion_) {
    if (conversion_->IsRunning()) return true;
    material_.annotations =
        AtRate(material_.annotations, material_.audio.format.rate, wanted_->rate);
    material_.audio = conversion_->Finish();
  } else {
    TakeAudio();
    if (wanted_ && *wanted_ != material_.audio.format) {
      conversion_.emplace(material_.audio, *wanted_);
      return true;
    }
  }
  Cancel();
  return false;
}

void ImportJob::TakeAudio() {
  const ImportedAudio& take = material_.audio = LastTake(pool_.Get());
  if (take.frames <= 0 || take.format.rate <= 0 || take.format.channels <= 0) {
    throw HostError(ExitStatus::kInput, file(), "no audio could be decoded",
                    "The file may be damaged: play it elsewhere, or use another copy.");
  }
  // The import ignores failed writes, so the end of the take may be missing from the pool's file.
  const FloatArray last(static_cast<std::size_t>(take.format.channels));
  if (FAILED(take.reader->ReadAudio(take.frames - 1, last.get()))) {
    throw HostError(ExitStatus::kOutput, kTemporaryFolder, "the disk is full",
                    "Free some space there and open the file again.");
  }
  // Asks only now, because the length of a compressed file may be an estimate before the import.
  const std::optional<__int64> promised = source_->Frames();
  if (promised && take.frames < *promised) {
    warning_ = "only " + FormatDuration(take.frames, take.format.rate) + " of " +
               FormatDuration(*promised, take.format.rate) + " could be decoded";
  }
}

void ImportJob::Cancel() {
  FileJob::Cancel();
  source_.reset();
  conversion_.reset();
}

std::wstring ExportJob::DialogFilter() {
  std::wstring types;
  for (const auto& filter : ExportFilters()) {
    Bstr text;
    Bstr extensions;
    Check(filter->GetFilterStrings(text.Receive(), extensions.Receive()));
    types += Widen(text.utf8());
  }
  return types;
}

ExportJob::ExportJob(const std::string& file, const Document& document, HWND owner)
    : FileJob(file), frames_(document.frames()), reader_(Query<IAudioReader>(document.audio())) {
  Check(reader_->OpenDevice());
  try {
    Begin(document, owner);
  } catch (...) {
    Cancel();
    throw;
  }
}

void ExportJob::Begin(const Document& document, HWND owner) {
  const Bstr kind(ExtensionOf(file()));
  for (auto& filter : ExportFilters()) {
    VARIANT_BOOL supported = VARIANT_FALSE;
    Check(filter->QuerySupportsExtension(kind.get(), &supported));
    if (supported != VARIANT_FALSE) {
      filter_ = std::move(filter);
      break;
    }
    is_wave_ = false;
  }
  if (!filter_) {
    throw HostError(ExitStatus::kUsage, file(), "no export filter writes files of this kind",
                    "Choose a name that ends in .wav, .mp3 or .wma.");
  }
  RequireWritablePlace(file(), {});
  VARIANT_BOOL has_settings = VARIANT_FALSE;
  Check(filter_->QueryHasSettingsDlg(kind.get(), &has_settings));
  if (has_settings != VARIANT_FALSE) {
    Check(filter_->ShowSettingsDlg(kind.get(), static_cast<ULONG>(HandleToLong(owner))));
  }

  unfinished_ = UnusedNameBeside(file());
  // Clamps samples, because at 24 and 32 bits the engine turns +1.0 into the most negative integer.
  const auto source = ClampSamples(reader_.Get());
  const HRESULT hr = filter_->Initialize(Bstr(EngineNameOfOutput(unfinished_)).get(), source.Get());
  if (FAILED(hr)) throw Explain(hr, file(), ExitStatus::kOutput);
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
    // The export does not report failed writes, so this job checks the file.
    std::ifstream written(PathOf(unfinished_), std::ios::binary);
    const auto facts = ExamineWaveFile(written);
    whole = facts && HoldsFrames(*facts, frames_);
  } else {
    std::error_code ignored;
    whole = fs::file_size(PathOf(unfinished_), ignored) > 0 && !ignored;
  }
  FileJob::Cancel();
  filter_.Reset();
  const bool moved = whole && MoveFileExW(Widen(unfinished_).c_str(), Widen(file()).c_str(),
                                          MOVEFILE_REPLACE_EXISTING) != 0;
  const HRESULT hr = LastErrorResult();
  Cancel();
  if (!whole) {
    throw HostError(ExitStatus::kOutput, file(),
                    "the file could not be written whole, so it was removed",
                    "Free some space on the disk or choose another disk; a WAV file holds at most "
                    "4 GiB.");
  }
  if (!moved) throw Explain(hr, file(), ExitStatus::kOutput);
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
