// Imports and exports that run in the background.
#pragma once

#include <marlinda.h>

#include <optional>
#include <string>

#include "editor/conversion.h"
#include "editor/document.h"
#include "host/engine.h"

namespace marlinda::editor {

// Runs a task of the engine. The derived classes import and export.
class FileJob {
 public:
  virtual ~FileJob() = default;
  FileJob(const FileJob&) = delete;
  FileJob& operator=(const FileJob&) = delete;

  // The file's path, and its name without the folder.
  const std::string& file() const { return file_; }
  const std::string& name() const { return name_; }
  // The current activity: "Reading", "Converting" or "Writing".
  virtual const char* activity() const = 0;
  // Returns the progress of the current activity from 0 to 1.
  virtual float progress() const;
  // Call this at each timer tick. Returns false when the job is done. Throws if the job has failed.
  bool Poll();
  // Cancels the task and waits for the engine's worker. Do not poll the job afterwards.
  virtual void Cancel();

 protected:
  explicit FileJob(const std::string& file);
  void Start(ComPtr<ICoreTask> task);
  // Each Poll calls this after the task has ended. Returns true if there is more to do.
  virtual bool Continue() = 0;

 private:
  const std::string file_;
  const std::string name_;
  ComPtr<ICoreTask> task_;
};

class ImportJob final : public FileJob {
 public:
  // Reads the file. If `wanted` is given, converts the audio to that format.
  ImportJob(const std::string& file, std::optional<AudioFormat> wanted);
  ~ImportJob() override { Cancel(); }

  const char* activity() const override { return conversion_ ? "Converting" : "Reading"; }
  float progress() const override;
  // Valid after the end of the job.
  const Material& material() const { return material_; }
  // States how much of a damaged file could be read. Empty for a complete file.
  const std::string& warning() const { return warning_; }

  void Cancel() override;

 private:
  bool Continue() override;
  void TakeAudio();

  const std::optional<AudioFormat> wanted_;
  ComPtr<IAudioPool> pool_;
  std::optional<Source> source_;
  Material material_;
  std::string warning_;
  std::optional<Conversion> conversion_;
};

// Exports the document. The file name's extension (wav, mp3 or wma) selects the format.
class ExportJob final : public FileJob {
 public:
  // Shows the engine's settings dialog for this kind of file, modal to `owner`, then starts. The
  // job writes a temporary file in the target's folder and renames it when it is complete.
  ExportJob(const std::string& file, const Document& document, HWND owner);
  ~ExportJob() override { Cancel(); }

  const char* activity() const override { return "Writing"; }

  // Returns file types for a save dialog: description and pattern, each followed by "|".
  static std::wstring DialogFilter();

  void Cancel() override;

 private:
  bool Continue() override;
  void Begin(const Document& document, HWND owner);

  std::string unfinished_;
  bool is_wave_ = true;
  std::int64_t frames_ = 0;
  ComPtr<IAudioReader> reader_;
  ComPtr<IExportFilter> filter_;
};

}  // namespace marlinda::editor
