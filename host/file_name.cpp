#include "host/file_name.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "core/com_call.h"
#include "core/handle.h"
#include "host/messages.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

FileHandle OpenFile(const std::string& file, DWORD access, DWORD disposition,
                    ExitStatus otherwise) {
  FileHandle handle(CreateFileW(Widen(file).c_str(), access,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!handle) throw Explain(LastErrorResult(), file, otherwise);
  return handle;
}

// True for names such as CON.wav, which open a device in any folder.
bool IsDevice(const std::wstring& name) {
  std::wstring full(GetFullPathNameW(name.c_str(), 0, nullptr, nullptr), L'\0');
  full.resize(
      GetFullPathNameW(name.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
  return full.starts_with(L"\\\\.\\");
}

void RefuseNoFile(const std::string& file, ExitStatus status) {
  const std::wstring name = Widen(file);
  std::error_code ignored;
  if (IsDevice(name)) {
    throw HostError(status, file, "this name belongs to a device", "Choose another name.");
  }
  if (std::filesystem::is_directory(name, ignored)) {
    throw HostError(status, file, "this is a folder", "Name a file.");
  }
}

// The engine opens files with functions that take fewer than MAX_PATH characters of the code page.
bool Fits(const std::wstring& name) { return FitsCodePage(name) && name.size() < MAX_PATH; }

// Returns the name if it fits, otherwise the short name if that fits. If neither fits, throws for
// characters outside the code page, and otherwise returns the name although it is too long.
std::wstring FittingName(const std::string& file, ExitStatus otherwise) {
  std::wstring name = Widen(file);
  if (Fits(name)) return name;
  std::wstring short_name(GetShortPathNameW(name.c_str(), nullptr, 0), L'\0');
  short_name.resize(
      GetShortPathNameW(name.c_str(), short_name.data(), static_cast<DWORD>(short_name.size())));
  if (!short_name.empty() && Fits(short_name)) return short_name;
  if (!FitsCodePage(name)) {
    throw HostError(otherwise, file, "the name holds characters that the engine cannot use",
                    "Choose a name, and a folder, whose letters belong to the system's code page.");
  }
  return name;
}

}  // namespace

void RequireReadable(const std::string& file) {
  RefuseNoFile(file, ExitStatus::kInput);
  OpenFile(file, GENERIC_READ, OPEN_EXISTING, ExitStatus::kInput);
}

void RequireWritable(const std::string& file) {
  const std::filesystem::path path(Widen(file));
  std::error_code ignored;
  const bool existed = std::filesystem::exists(path, ignored);
  OpenFile(file, GENERIC_WRITE, OPEN_ALWAYS, ExitStatus::kOutput);
  if (!existed) std::filesystem::remove(path, ignored);
}

void RequireWritablePlace(const std::string& output, const std::vector<std::string>& inputs) {
  RefuseNoFile(output, ExitStatus::kOutput);
  const std::filesystem::path path(Widen(output));
  const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : L".";
  std::error_code ignored;
  if (!std::filesystem::is_directory(folder, ignored)) {
    throw Explain(HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), output, ExitStatus::kOutput);
  }
  for (const std::string& input : inputs) {
    if (std::filesystem::equivalent(path, Widen(input), ignored)) {
      throw HostError(ExitStatus::kUsage, output, "the output is the input file itself",
                      "Choose another name.");
    }
  }
}

void WriteWholeFile(const std::string& file, const std::string& content) {
  const std::filesystem::path path(Widen(file));
  std::ofstream output(path, std::ios::binary | std::ios::trunc);
  const bool opened = output.is_open();
  output.write(content.data(), static_cast<std::streamsize>(content.size()));
  output.close();
  if (output) return;
  std::error_code ignored;
  if (opened) std::filesystem::remove(path, ignored);
  throw HostError(ExitStatus::kOutput, file, "it could not be written",
                  "Check that the folder is writable and the disk is not full.");
}

std::string ExtensionOf(const std::string& file) {
  std::string extension = Narrow(std::filesystem::path(Widen(file)).extension().wstring());
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return extension.empty() ? extension : extension.substr(1);
}

std::wstring EngineNameOfInput(const std::string& file) {
  return FittingName(file, ExitStatus::kInput);
}

std::wstring EngineNameOfOutput(const std::string& file) {
  if (!Fits(Widen(file))) OpenFile(file, GENERIC_WRITE, OPEN_ALWAYS, ExitStatus::kOutput);
  return FittingName(file, ExitStatus::kOutput);
}

}  // namespace marlinda
