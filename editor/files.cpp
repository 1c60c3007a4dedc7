// The editor's file commands: opening, inserting and exporting files, and asking to save changes.
#include <algorithm>
#include <filesystem>
#include <utility>

#include "editor/editor_window.h"
#include "host/wide_text.h"

namespace marlinda::editor {

void EditorWindow::AfterSaving(std::function<void()> then) {
  if (transport_.IsRecording()) FinishRecording();
  if (document_.IsSaved()) return then();
  const int answer =
      MessageBoxW(window_, L"The document has changes that are in no file yet.\n\nExport it first?",
                  L"Marlinda Editor", MB_YESNOCANCEL | MB_ICONQUESTION);
  if (answer == IDCANCEL) return;
  // An export may have ended while the question was shown.
  if (answer == IDNO || document_.IsSaved()) return then();
  if (dynamic_cast<const ExportJob*>(job_.get()) != nullptr) {
    after_export_ = std::move(then);
  } else {
    CancelJob();
    Export(std::move(then));
  }
}

void EditorWindow::Open(const std::vector<std::string>& files) {
  Try("Opening the files", [&] { StartFiles(files, true); });
}

void EditorWindow::StartFiles(std::vector<std::string> files, bool replace) {
  if (files.empty()) return;
  if (job_ || transport_.IsRecording()) {
    throw HostError(ExitStatus::kUsage, files.front(),
                    "another file is read or written, or a recording runs",
                    "Wait until it has finished, or cancel with Esc.");
  }
  const auto start = [this, files = std::move(files), replace] {
    files_.assign(files.begin(), files.end());
    replace_ = opening_ = replace;
    insert_at_ = replace ? 0 : selection().begin;
    StartNextFile();
  };
  if (replace) {
    AfterSaving(start);
  } else {
    start();
  }
}

void EditorWindow::StartNextFile() {
  while (!files_.empty() && !job_) {
    const std::string file = std::move(files_.front());
    files_.pop_front();
    const bool joins = !replace_ && document_.frames() > 0;
    Try("The file cannot be read", [&] {
      job_ = std::make_unique<ImportJob>(file,
                                         joins ? std::optional(document_.format()) : std::nullopt);
    });
  }
  InvalidateAll();
  WatchTimer();
  ShowState();
}

void EditorWindow::FinishJob() {
  const std::unique_ptr<FileJob> done = std::move(job_);
  if (const auto* const import = dynamic_cast<const ImportJob*>(done.get())) {
    Try("The file cannot be inserted", [&] {
      transport_.Stop();
      const Material& material = import->material();
      if (replace_) {
        document_.Clear();
        file_ = import->file();
        Select(0, 0);
      }
      replace_ = false;
      const bool first = document_.frames() == 0;
      if (first && document_.tags == Tags()) document_.tags = material.tags;
      document_.Insert("Insert file", std::min(insert_at_, document_.frames()), material);
      if (first) view_.ShowAll();
      if (opening_) {
        document_.ForgetSteps();
      } else {
        Select(insert_at_, insert_at_ + material.audio.frames);
      }
      insert_at_ += material.audio.frames;
      message_ = import->warning().empty() ? "Read " + import->name()
                                           : "Damaged file: " + import->warning();
    });
  } else if (done) {
    file_ = done->file();
    document_.MarkSaved();
    message_ = "Wrote " + done->name();
  }
  StartNextFile();
  // Calls `then` last, because `then` may close the window.
  if (const auto then = std::exchange(after_export_, nullptr); then && done) then();
}

void EditorWindow::CancelJob() {
  job_.reset();
  files_.clear();
  after_export_ = nullptr;
}

void EditorWindow::Export(std::function<void()> then) {
  namespace fs = std::filesystem;
  fs::path path = Widen(file_.empty() ? "Untitled" : file_);
  const auto file = AskFileToWrite(window_, Narrow(path.replace_extension(L".wav").wstring()),
                                   ExportJob::DialogFilter());
  if (!file) return;
  transport_.Stop();
  Try("The file cannot be written", [&] {
    job_ = std::make_unique<ExportJob>(*file, document_, window_);
    after_export_ = std::move(then);
  });
  WatchTimer();
  ShowState();
}

}  // namespace marlinda::editor
