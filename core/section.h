// CSection: a half-open range of frames.
#pragma once

#include <cstdint>

#include "core/frame_math.h"

namespace marlinda {

// `end` is one past the last frame. A section may be empty or backward (`end` before `begin`).
class CSection {
 public:
  CSection() noexcept = default;
  CSection(std::int64_t first, std::int64_t past_last) noexcept : begin(first), end(past_last) {}
  CSection(const CSection&) noexcept = default;
  CSection& operator=(const CSection&) noexcept = default;
  virtual ~CSection() = default;

  // Negative for a backward section.
  std::int64_t Length() const noexcept { return WrappingSubtract(end, begin); }
  bool Contains(std::int64_t position) const noexcept {
    return begin <= position && position < end;
  }

  std::int64_t begin = 0;
  std::int64_t end = 0;
};

}  // namespace marlinda
