// ByteSource: random access to the bytes of a file.
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
  // Fills `out` with the bytes from `offset` on. Returns the number of bytes read, which is less
  // than the size of `out` at the end of the file or after an error.
  virtual std::size_t Read(std::uint64_t offset, std::span<std::byte> out) = 0;

  // Returns at most `count` bytes from `offset` on. Never allocates more than the file's size.
  std::vector<std::byte> ReadUpTo(std::uint64_t offset, std::uint64_t count) {
    const std::uint64_t there = size() - std::min(offset, size());
    std::vector<std::byte> bytes(static_cast<std::size_t>(std::min(count, there)));
    bytes.resize(Read(offset, bytes));
    return bytes;
  }
};

}  // namespace marlinda
