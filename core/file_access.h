// Reads a file at 64-bit offsets, and writes at the file pointer.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <span>

#include "core/com_call.h"

namespace marlinda {

// The maximum number of bytes per call, because ReadFile and WriteFile count bytes in 32 bits.
inline constexpr std::size_t kMaxBytesPerCall = std::size_t{1} << 30;

// Moves the file pointer and holds a lock for the handle until the end of the scope, because all
// users of a handle share its file pointer. Passing the offset to ReadFile or WriteFile would need
// no lock, but is forty times slower under Wine.
class Seek {
 public:
  Seek(HANDLE file, std::int64_t offset) noexcept
      : lock_(&locks[(reinterpret_cast<std::uintptr_t>(file) >> 2) % std::size(locks)]) {
    AcquireSRWLockExclusive(lock_);
    LARGE_INTEGER place;
    place.QuadPart = offset;
    SetFilePointerEx(file, place, nullptr, FILE_BEGIN);
  }
  ~Seek() { ReleaseSRWLockExclusive(lock_); }
  Seek(const Seek&) = delete;
  Seek& operator=(const Seek&) = delete;

 private:
  // The locks of all files, selected by handle. Two files may share a lock.
  static inline SRWLOCK locks[64] = {};

  SRWLOCK* const lock_;
};

struct ReadResult {
  HRESULT hr;         // S_OK, 0x80070026 if the file ended first, or the error of the failed read
  std::size_t count;  // bytes read
};

// Fills `bytes` from `offset` on. Other threads may use ReadAt or Seek on the same handle
// meanwhile. A negative offset fails with ERROR_NEGATIVE_SEEK.
inline ReadResult ReadAt(HANDLE file, std::int64_t offset, std::span<std::byte> bytes) noexcept {
  if (offset < 0) return {HRESULT_FROM_WIN32(ERROR_NEGATIVE_SEEK), 0};
  // No file reaches beyond the largest offset.
  const auto left = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max() - offset);
  if (bytes.size() > left) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), 0};
  const Seek seek(file, offset);
  std::size_t count = 0;
  while (count < bytes.size()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size() - count, kMaxBytesPerCall));
    DWORD read = 0;
    if (!ReadFile(file, bytes.data() + count, size, &read, nullptr)) {
      return {LastErrorResult(), count};
    }
    count += read;
    if (read < size) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), count};
  }
  return {S_OK, count};
}

// Writes all of `bytes` at the file pointer.
inline HRESULT WriteAll(HANDLE file, std::span<const std::byte> bytes) noexcept {
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMaxBytesPerCall));
    DWORD written = 0;
    if (!WriteFile(file, bytes.data(), size, &written, nullptr)) return LastErrorResult();
    if (written < size) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    bytes = bytes.subspan(size);
  }
  return S_OK;
}

}  // namespace marlinda
