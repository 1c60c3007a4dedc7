// Imports and exports that run while the window goes on.
#pragma once

#include <marlinda.h>

#include <optional>
#include <string>

#include "editor/document.h"
#include "host/engine.h"

namespace marlinda::editor {

// A task of the engine, or several in a row.
class FileJob {
 public:
  virtual ~FileJob() = default;
  FileJob(const FileJob&) = delete;
  FileJob& operator=(const FileJob&) = delete;

  // What it does, such as "Reading demo.ogg".
  const std::string& title() const { return title_; }
  // From 0 to 1.
  float progress() const;
  // Call it at each tick of a timer until it returns false: then the job is done. Throws a
  // HostError when it failed.
  bool Poll();
  // Waits for the end of the engine's worker. The job must not be polled any more.
  virtual void Cancel();

 protected:
  explicit FileJob(std::string title) : title_(std::move(title)) {}
  void Start(ComPtr<ICoreTask> task);
  // The task has ended. True when there is another one.
  virtual bool Continue() = 0;

  int steps_ = 1;
  int step_ = 0;

 private:
  std::string title_;
  ComPtr<ICoreTask> task_;
};

class ImportJob final : public FileJob {
 public:
  // Reads the file. Audio of another format than `wanted` is converted, when that is given.
  ImportJob(const std::string& file, std::optional<AudioFormat> wanted);
  ~ImportJob() override { Cancel(); }

  const std::string& file() const { return file_; }
  // After the end.
  const Material& material() const { return material_; }
  // A damaged file: how much of it could be read. Empty otherwise.
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

// The file name's extension decides the format: wav, mp3 or wma.
class ExportJob final : public FileJob {
 public:
  // Shows the engine's settings for this kind of file, modal to `owner`, then starts. The file is
  // written beside its place under another name, and takes it when it is whole.
  ExportJob(const std::string& file, const Document& document, HWND owner);
  ~ExportJob() override { Cancel(); }

  const std::string& file() const { return file_; }

  // The types for a save dialog, description and pattern each ended by a bar.
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
