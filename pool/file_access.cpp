#include "pool/file_access.h"

#include <algorithm>
#include <limits>

#include "core/com_call.h"

namespace marlinda {
namespace {

// One system call serves a block; only a block that a 32-bit count cannot express takes more.
constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;

// The place goes with the call. One that was set before could be another thread's by then.
OVERLAPPED At(std::int64_t offset) noexcept {
  OVERLAPPED place = {};
  place.Offset = static_cast<DWORD>(static_cast<std::uint64_t>(offset));
  place.OffsetHigh = static_cast<DWORD>(static_cast<std::uint64_t>(offset) >> 32);
  return place;
}

}  // namespace

HRESULT WriteAt(HANDLE file, std::int64_t offset, std::span<const std::byte> bytes) noexcept {
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMostAtOnce));
    DWORD written = 0;
    OVERLAPPED place = At(offset);
    if (!WriteFile(file, bytes.data(), size, &written, &place)) return LastErrorResult();
    if (written < size) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    bytes = bytes.subspan(size);
    offset += size;
  }
  return S_OK;
}

ReadResult ReadAt(HANDLE file, std::int64_t offset, std::span<std::byte> bytes) noexcept {
  if (offset < 0) return {HRESULT_FROM_WIN32(ERROR_NEGATIVE_SEEK), 0};
  // No file is as long, and the system takes such a place for a mistake.
  const auto left = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max() - offset);
  if (bytes.size() > left) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), 0};
  std::size_t count = 0;
  while (count < bytes.size()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size() - count, kMostAtOnce));
    DWORD read = 0;
    OVERLAPPED place = At(offset + static_cast<std::int64_t>(count));
    if (!ReadFile(file, bytes.data() + count, size, &read, &place)) {
      return {LastErrorResult(), count};
    }
    count += read;
    if (read < size) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), count};
  }
  return {S_OK, count};
}

}  // namespace marlinda
