#include "pool/file_access.h"

#include <algorithm>

#include "core/com_call.h"

namespace marlinda {
namespace {

// One system call serves a block; only a block that a 32-bit count cannot express takes more.
constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;

void Seek(HANDLE file, std::int64_t offset) noexcept {
  LARGE_INTEGER place;
  place.QuadPart = offset;
  SetFilePointerEx(file, place, nullptr, FILE_BEGIN);
}

}  // namespace

HRESULT WriteAt(HANDLE file, std::int64_t offset, std::span<const std::byte> bytes) noexcept {
  Seek(file, offset);
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMostAtOnce));
    DWORD written = 0;
    if (!WriteFile(file, bytes.data(), size, &written, nullptr)) return LastErrorResult();
    if (written < size) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    bytes = bytes.subspan(size);
  }
  return S_OK;
}

ReadResult ReadAt(HANDLE file, std::int64_t offset, std::span<std::byte> bytes) noexcept {
  if (offset < 0) return {HRESULT_FROM_WIN32(ERROR_NEGATIVE_SEEK), 0};
  Seek(file, offset);
  std::size_t count = 0;
  while (count < bytes.size()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size() - count, kMostAtOnce));
    DWORD read = 0;
    if (!ReadFile(file, bytes.data() + count, size, &read, nullptr)) {
      return {LastErrorResult(), count};
    }
    count += read;
    if (read < size) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), count};
  }
  return {S_OK, count};
}

}  // namespace marlinda
