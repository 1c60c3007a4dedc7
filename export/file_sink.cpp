#include "export/file_sink.h"

#include <algorithm>

namespace marlinda {
namespace {

// The system counts the bytes of one write in 32 bits. Blocks of samples are far smaller.
constexpr std::size_t kLargestWrite = std::size_t{1} << 30;

}  // namespace

bool FileSink::Write(std::span<const std::byte> bytes) noexcept {
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kLargestWrite));
    DWORD written = 0;
    if (WriteFile(file_.get(), bytes.data(), size, &written, nullptr) == FALSE) return false;
    if (written != size) return false;
    bytes = bytes.subspan(size);
  }
  return true;
}

bool FileSink::Seek(std::uint64_t position) noexcept {
  LARGE_INTEGER target;
  target.QuadPart = static_cast<LONGLONG>(position);
  return SetFilePointerEx(file_.get(), target, nullptr, FILE_BEGIN) != FALSE;
}

std::uint64_t FileSink::Position() const noexcept {
  LARGE_INTEGER position = {};
  SetFilePointerEx(file_.get(), LARGE_INTEGER{}, &position, FILE_CURRENT);
  return static_cast<std::uint64_t>(position.QuadPart);
}

FileHandle CreateTargetFile(const std::string& name) noexcept {
  return FileHandle(CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
}

}  // namespace marlinda
