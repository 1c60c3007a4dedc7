#include "pool/file_access.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>

#include "core/com_call.h"

namespace marlinda {
namespace {

// One system call serves a block; only a block that a 32-bit count cannot express takes more.
constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;

// One for several files: two that share one only wait for each other now and then.
SRWLOCK locks[64] = {};

// All users of a handle share its file pointer, so nobody else may come between the seek and what
// follows it. (A place that goes with the call would do without, but costs forty times as much
// under Wine.)
class Seek {
 public:
  Seek(HANDLE file, std::int64_t offset) noexcept
      : lock_(&locks[(reinterpret_cast<std::uintptr_t>(file) >> 2) % std::size(locks)]) {
    AcquireSRWLockExclusive(lock_);
    LARGE_INTEGER place;
    place.QuadPart = offset;
    SetFilePointerEx(file, place, nullptr, FILE_BEGIN);
  }
  ~Seek() { ReleaseSRWLockExclusive(lock_); }
  Seek(const Seek&) = delete;
  Seek& operator=(const Seek&) = delete;

 private:
  SRWLOCK* const lock_;
};

}  // namespace

HRESULT WriteAt(HANDLE file, std::int64_t offset, std::span<const std::byte> bytes) noexcept {
  const Seek place(file, offset);
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMostAtOnce));
    DWORD written = 0;
    if (!WriteFile(file, bytes.data(), size, &written, nullptr)) return LastErrorResult();
    if (written < size) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    bytes = bytes.subspan(size);
  }
  return S_OK;
}

ReadResult ReadAt(HANDLE file, std::int64_t offset, std::span<std::byte> bytes) noexcept {
  if (offset < 0) return {HRESULT_FROM_WIN32(ERROR_NEGATIVE_SEEK), 0};
  // No file is as long.
  const auto left = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max() - offset);
  if (bytes.size() > left) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), 0};
  const Seek place(file, offset);
  std::size_t count = 0;
  while (count < bytes.size()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size() - count, kMostAtOnce));
    DWORD read = 0;
    if (!ReadFile(file, bytes.data() + count, size, &read, nullptr)) {
      return {LastErrorResult(), count};
    }
    count += read;
    if (read < size) return {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), count};
  }
  return {S_OK, count};
}

}  // namespace marlinda
