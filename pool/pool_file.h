// TemporaryFile: a file of a pool.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "core/com_call.h"
#include "core/file_access.h"
#include "core/handle.h"

namespace marlinda {

// Create fails after it has tried this many names.
inline constexpr int kMaxNames = 10;

// A file that the system deletes when its handle is closed. The destructor does not delete it by
// name, because another program may already have created a new file of that name.
class TemporaryFile {
 public:
  // Creates a file with a new name and opens it exclusively. On failure, Write returns the error.
  void Create(const std::string& directory, const char* prefix) noexcept {
    if (GetFileAttributesA(directory.c_str()) == INVALID_FILE_ATTRIBUTES) {
      error_ = LastErrorResult();
      return;
    }
    for (int i = 0; i < kMaxNames && !handle_; ++i) {
      char name[MAX_PATH] = "";
      // Wine returns a number even if it could not create the file. In this case CreateFileA fails.
      if (GetTempFileNameA(directory.c_str(), prefix, 0, name) != 0) {
        // Deletes the empty file that GetTempFileNameA has created. Reusing it with CREATE_ALWAYS
        // would truncate it. Some file systems write a truncated file to the disk on closing, even
        // if closing deletes the file. CREATE_NEW fails if another program has taken the name.
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
  // seek needs no check, because its cause makes the write fail too.
  HRESULT Write(std::int64_t offset, std::span<const std::byte> bytes) noexcept {
    if (!handle_) return error_;
    const Seek seek(handle_.get(), offset);
    return WriteAll(handle_.get(), bytes);
  }

 private:
  FileHandle handle_;
  HRESULT error_ = S_OK;  // the result of Create
};

}  // namespace marlinda
