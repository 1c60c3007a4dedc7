// FileSource: a file on disk, open for reading. Others may read and write it meanwhile.
#pragma once

#include <string>

#include "core/handle.h"
#include "import/byte_source.h"

namespace marlinda {

class FileSource final : public ByteSource {
 public:
  // False when the file cannot be opened or the name is that of a device; to be called once.
  bool Open(const std::wstring& name) noexcept;

  std::uint64_t size() const override { return size_; }
  std::size_t Read(std::uint64_t offset, std::span<std::byte> out) override;

 private:
  FileHandle file_;
  std::uint64_t size_ = 0;
};

}  // namespace marlinda
