// Where the readers of files get their bytes from.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace marlinda {

class ByteSource {
 public:
  virtual ~ByteSource() = default;

  virtual std::uint64_t size() const = 0;
  // Fills `out` from `offset` on and returns how many bytes there were: fewer at the end of the
  // file and after an error.
  virtual std::size_t Read(std::uint64_t offset, std::span<std::byte> out) = 0;

  // At most `count` bytes from `offset` on, and no more memory than the file has bytes.
  std::vector<std::byte> ReadUpTo(std::uint64_t offset, std::uint64_t count) {
    const std::uint64_t there = size() - std::min(offset, size());
    std::vector<std::byte> bytes(static_cast<std::size_t>(std::min(count, there)));
    bytes.resize(Read(offset, bytes));
    return bytes;
  }
};

}  // namespace marlinda
