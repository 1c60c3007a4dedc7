// A byte sink in memory, with the faults and the size of a disk.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <span>

#include "export/byte_sink.h"
#include "tests/export/riff_builder.h"

namespace marlinda::testing {

// What is behind the sink, and outlives it. Sparse, so that positions past 4 GiB cost nothing.
struct MemoryFile {
  std::map<std::uint64_t, unsigned char> bytes;
  std::uint64_t capacity = std::numeric_limits<std::uint64_t>::max();
  bool is_closed = false;

  riff::Bytes Range(std::uint64_t begin, std::uint64_t size) const {
    riff::Bytes result;
    for (std::uint64_t at = begin; at < begin + size; ++at) {
      const auto found = bytes.find(at);
      result.push_back(found == bytes.end() ? 0 : found->second);
    }
    return result;
  }
  riff::Bytes All() const { return Range(0, bytes.empty() ? 0 : bytes.rbegin()->first + 1); }
};

class MemorySink final : public ByteSink {
 public:
  explicit MemorySink(MemoryFile& file) : file_(file) {}
  ~MemorySink() override { file_.is_closed = true; }

  bool Write(std::span<const std::byte> bytes) noexcept override {
    for (const std::byte byte : bytes) {
      if (position_ >= file_.capacity) return false;
      file_.bytes[position_++] = std::to_integer<unsigned char>(byte);
    }
    return true;
  }
  bool Seek(std::uint64_t position) noexcept override {
    position_ = position;
    return true;
  }
  std::uint64_t Position() const noexcept override { return position_; }

 private:
  MemoryFile& file_;
  std::uint64_t position_ = 0;
};

}  // namespace marlinda::testing
