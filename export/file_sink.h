// FileSink: a byte sink over a file handle, unbuffered.
#pragma once

#include <windows.h>

#include <string>
#include <utility>

#include "core/handle.h"
#include "export/byte_sink.h"

namespace marlinda {

class FileSink final : public ByteSink {
 public:
  explicit FileSink(FileHandle file) noexcept : file_(std::move(file)) {}

  bool Write(std::span<const std::byte> bytes) noexcept override;
  bool Seek(std::uint64_t position) noexcept override;
  std::uint64_t Position() const noexcept override;

 private:
  FileHandle file_;
};

// Creates or empties the file `name`, for its owner alone to write. No handle, and the thread's
// last error, when that fails.
FileHandle CreateTargetFile(const std::string& name) noexcept;

}  // namespace marlinda
