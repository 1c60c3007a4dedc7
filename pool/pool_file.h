// The files of a pool: temporary files, and reads and writes of whole blocks at 64-bit places.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "core/handle.h"

namespace marlinda {

struct ReadResult {
  HRESULT hr;         // S_OK, 0x80070026 if the file ended first, or the error of the failed read
  std::size_t count;  // bytes that were read
};

// Reads into `bytes` from `offset`, whatever other threads do with the same handle meanwhile. An
// offset before the start of the file fails with ERROR_NEGATIVE_SEEK.
ReadResult ReadAt(HANDLE file, std::int64_t offset, std::span<std::byte> bytes) noexcept;

// A file that the system deletes when its handle is closed. It is not deleted by name as well: by
// then another program may have made a file of that name.
class TemporaryFile {
 public:
  // Makes a file with a new name, for reading and writing through this handle alone. A failure is
  // reported by Write.
  void Create(const std::string& directory, const char* prefix) noexcept;

  // Null if the file could not be made.
  HANDLE handle() const noexcept { return handle_ ? handle_.get() : nullptr; }

  // Writes all of `bytes` at `offset`. Fails with the error of Create if there is no file. A failed
  // seek is not reported: its cause makes the write fail too.
  HRESULT Write(std::int64_t offset, std::span<const std::byte> bytes) noexcept;

 private:
  FileHandle handle_;
  HRESULT error_ = S_OK;  // of Create
};

}  // namespace marlinda
