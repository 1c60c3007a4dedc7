// A file that lives no longer than its handle.
#pragma once

#include <windows.h>

#include <string>

#include "core/handle.h"

namespace marlinda {

class TemporaryFile {
 public:
  TemporaryFile() noexcept = default;
  // The system deletes the file with its handle. Deleting it by its name as well could take away
  // the file to which another program has given that name meanwhile.
  ~TemporaryFile() = default;
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  // Makes a file of a new name in `directory`, for reading and writing by this handle alone.
  HRESULT Create(const std::string& directory, const char* prefix) noexcept;

  // INVALID_HANDLE_VALUE while there is no file.
  HANDLE handle() const noexcept { return handle_.get(); }

 private:
  FileHandle handle_;
};

}  // namespace marlinda
