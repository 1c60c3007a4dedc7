// A file in memory, built from the pieces of tests/export/riff_builder.h or from any bytes.
#pragma once

#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "import/byte_source.h"

namespace marlinda::testing {

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::vector<unsigned char> bytes) : bytes_(std::move(bytes)) {}

  std::uint64_t size() const override { return bytes_.size(); }
  std::size_t Read(std::uint64_t offset, std::span<std::byte> out) override {
    const std::uint64_t there = bytes_.size() - std::min<std::uint64_t>(offset, bytes_.size());
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), there));
    if (count > 0) std::memcpy(out.data(), bytes_.data() + offset, count);
    return count;
  }

 private:
  std::vector<unsigned char> bytes_;
};

}  // namespace marlinda::testing
