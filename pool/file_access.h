// Whole blocks at 64-bit places of a file, whatever other callers do with the same handle
// meanwhile.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// Writes all of `bytes` at `offset`: S_OK or the HRESULT of the failed write. A failed seek is
// dropped: what makes a seek fail makes the write fail too.
HRESULT WriteAt(HANDLE file, std::int64_t offset, std::span<const std::byte> bytes) noexcept;

struct ReadResult {
  HRESULT hr;         // S_OK, 0x80070026 when the file ended first, or that of the failed read
  std::size_t count;  // bytes that were read
};

// Reads into `bytes` from `offset`. An offset before the start of the file is refused.
ReadResult ReadAt(HANDLE file, std::int64_t offset, std::span<std::byte> bytes) noexcept;

}  // namespace marlinda
