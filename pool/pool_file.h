// The files of a pool: temporary files, and block reads and writes at 64-bit offsets.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <span>
#include <string>

#include "core/com_call.h"
#include "core/handle.h"

namespace marlinda {

// The most bytes per call, because ReadFile and WriteFile count bytes in 32 bits.
inline constexpr std::size_t kMaxBytesPerCall = std::size_t{1} << 30;

// Names to try before the creation fails.
inline constexpr int kMaxNames = 10;

// Moves the file pointer and holds the lock until the end of the scope, because all users of a
// handle share the pointer. Passing the offset to the read or write call would need no lock, but is
// forty times slower under Wine.
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

// Reads into `bytes` from `offset`. Other threads may use the same handle meanwhile. An offset
// before the start of the file fails with ERROR_NEGATIVE_SEEK.
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

// A file that the system deletes when its handle is closed. The destructor does not delete it by
// name, because another program may already have created a new file of that name.
class TemporaryFile {
 public:
  // Creates a file with a new name and opens it exclusively. On failure, Write returns the error.
  void Create(const std::string& directory, const char* prefix) noexcept {
    // GetTempFileNameA creates an empty file to reserve the name. Opening this file would truncate
    // it. Some file systems write a truncated file to the disk on closing, even if closing deletes
    // the file. So the empty file is deleted first. CREATE_NEW fails if another program has created
    // a file of this name in between.
    if (GetFileAttributesA(directory.c_str()) == INVALID_FILE_ATTRIBUTES) {
      error_ = LastErrorResult();
      return;
    }
    for (int i = 0; i < kMaxNames && !handle_; ++i) {
      char name[MAX_PATH] = "";
      // Wine returns a number even if it could not create the file. In this case CreateFileA fails.
      if (GetTempFileNameA(directory.c_str(), prefix, 0, name) != 0) {
        DeleteFileA(name);
        handle_.Reset(CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
      }
      error_ = handle_ ? S_OK : LastErrorResult();
    }
  }

  // Returns null if the file could not be created.
  HANDLE handle() const noexcept { return handle_ ? handle_.get() : nullptr; }

  // Writes all of `bytes` at `offset`. Fails with the error of Create if there is no file. A failed
  // seek is not reported: its cause makes the write fail too.
  HRESULT Write(std::int64_t offset, std::span<const std::byte> bytes) noexcept {
    if (!handle_) return error_;
    const Seek seek(handle_.get(), offset);
    while (!bytes.empty()) {
      const auto size = static_cast<DWORD>(std::min(bytes.size(), kMaxBytesPerCall));
      DWORD written = 0;
      if (!WriteFile(handle_.get(), bytes.data(), size, &written, nullptr))
        return LastErrorResult();
      if (written < size) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
      bytes = bytes.subspan(size);
    }
    return S_OK;
  }

 private:
  FileHandle handle_;
  HRESULT error_ = S_OK;  // the result of Create
};

}  // namespace marlinda
