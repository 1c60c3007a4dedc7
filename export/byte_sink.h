// Where the bytes of a written file go: a file in the product, memory in the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// Bytes at a position that can be moved. Destruction closes what is behind the sink.
class ByteSink {
 public:
  ByteSink() = default;
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;
  virtual ~ByteSink() = default;

  // Writes at the position, which then stands behind what was really written; false when that is
  // not all.
  [[nodiscard]] virtual bool Write(std::span<const std::byte> bytes) noexcept = 0;

  // False when the position could not be set; it has not moved then.
  [[nodiscard]] virtual bool Seek(std::uint64_t position) noexcept = 0;

  virtual std::uint64_t Position() const noexcept = 0;
};

}  // namespace marlinda
