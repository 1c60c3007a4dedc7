#include "import/file_source.h"

namespace marlinda {

bool FileSource::Open(const std::wstring& name) noexcept {
  // Another program may have it open for writing.
  file_.Reset(CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size = {};
  if (!file_ || GetFileType(file_.get()) != FILE_TYPE_DISK || !GetFileSizeEx(file_.get(), &size)) {
    return false;
  }
  size_ = static_cast<std::uint64_t>(size.QuadPart);
  return true;
}

std::size_t FileSource::Read(std::uint64_t offset, std::span<std::byte> out) {
  constexpr std::size_t kMaxRead = std::size_t{1} << 30;
  std::size_t done = 0;
  while (done < out.size()) {
    OVERLAPPED at = {};
    at.Offset = static_cast<DWORD>(offset + done);
    at.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
    DWORD count = 0;
    const auto wanted = static_cast<DWORD>(std::min(out.size() - done, kMaxRead));
    if (!ReadFile(file_.get(), out.data() + done, wanted, &count, &at) || count == 0) break;
    done += count;
  }
  return done;
}

}  // namespace marlinda
