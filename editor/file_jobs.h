// Imports and exports that run in the background.
#pragma once

#include <marlinda.h>

#include <optional>
#include <string>

#include "editor/document.h"
#include "host/engine.h"

namespace marlinda::editor {

// Runs one task of the engine, or several in sequence.
class FileJob {
 public:
  virtual ~FileJob() = default;
  FileJob(const FileJob&) = delete;
  FileJob& operator=(const FileJob&) = delete;

  // The current activity, such as "Reading demo.ogg".
  const std::string& title() const { return title_; }
  // From 0 to 1.
  float progress() const;
  // Call at each timer tick until it returns false: the job is then done. Throws a HostError if it
  // failed.
  bool Poll();
  // Cancels the task and waits for the engine's worker. Do not poll the job afterwards.
  virtual void Cancel();

 protected:
  explicit FileJob(std::string title) : title_(std::move(title)) {}
  void Start(ComPtr<ICoreTask> task);
  // Called when a task has ended. Returns true if it started another one.
  virtual bool Continue() = 0;

  int steps_ = 1;
  int step_ = 0;

 private:
  std::string title_;
  ComPtr<ICoreTask> task_;
};

class ImportJob final : public FileJob {
 public:
  // Reads the file. If `wanted` is given, converts the audio to that format.
  ImportJob(const std::string& file, std::optional<AudioFormat> wanted);
  ~ImportJob() override { Cancel(); }

  const std::string& file() const { return file_; }
  // Valid after the end of the job.
  const Material& material() const { return material_; }
  // How much of a damaged file could be read; empty for a complete file.
  const std::string& warning() const { return warning_; }

  void Cancel() override;

 private:
  bool Continue() override;
  void Begin(const std::string& file);
  void TakeAudio();
  void StartConversion();

  const std::string file_;
  const std::optional<AudioFormat> wanted_;
  ComPtr<IAudioPool> pool_;
  std::optional<Source> source_;
  Material material_;
  std::string warning_;
  ComPtr<IAudioConnector> connector_;
  std::string converted_;  // a temporary file
};

// The file name's extension, wav, mp3 or wma, decides the format.
class ExportJob final : public FileJob {
 public:
  // Shows the engine's settings for this kind of file, modal to `owner`, then starts. Writes a
  // temporary file in the target's folder and renames it when it is complete.
  ExportJob(const std::string& file, const Document& document, HWND owner);
  ~ExportJob() override { Cancel(); }

  const std::string& file() const { return file_; }

  // Types for a save dialog: description and pattern, each followed by a bar.
  static std::wstring DialogFilter();

  void Cancel() override;

 private:
  bool Continue() override;
  void Begin(const Document& document, HWND owner);

  const std::string file_;
  std::string unfinished_;
  bool is_wave_ = false;
  std::int64_t frames_ = 0;
  ComPtr<IAudioReader> reader_;
  ComPtr<IExportFilter> filter_;
};

}  // namespace marlinda::editor
