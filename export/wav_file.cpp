#include "export/wav_file.h"

#include <algorithm>
#include <array>
#include <utility>

namespace marlinda {
namespace {

// The system counts the bytes of one write in 32 bits.
constexpr std::size_t kMaxWrite = std::size_t{1} << 30;
// Of the body of "RIFF".
constexpr std::uint64_t kRiffStart = 8;

}  // namespace

FileHandle CreateTargetFile(const std::string& name) noexcept {
  return FileHandle(CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool WriteToFile(HANDLE file, std::span<const std::byte> bytes) noexcept {
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMaxWrite));
    DWORD written = 0;
    if (WriteFile(file, bytes.data(), size, &written, nullptr) == FALSE || written != size) {
      return false;
    }
    bytes = bytes.subspan(size);
  }
  return true;
}

void WavFile::Attach(FileHandle file) noexcept {
  file_ = std::move(file);
  data_start_ = 0;
  SeekTo(0);
}

void WavFile::Begin(const WavFormat& format, ManyChannels many_channels) {
  const LittleEndianBytes header = WavHeader(format, many_channels);
  // On a full disk there may be no header, and so no sizes to fill in.
  if (WriteBytes(header.bytes())) data_start_ = header.bytes().size();
}

void WavFile::Finish(std::span<const std::byte> trailer) noexcept {
  if (data_start_ != 0) {
    EndChunk(data_start_);
    WriteBytes(trailer);
    EndChunk(kRiffStart);
  }
  Attach(FileHandle());
}

bool WavFile::WriteBytes(std::span<const std::byte> bytes) noexcept {
  return file_ && WriteToFile(file_.get(), bytes);
}

void WavFile::SeekTo(std::uint64_t position) noexcept {
  LARGE_INTEGER target;
  target.QuadPart = static_cast<LONGLONG>(position);
  if (file_) SetFilePointerEx(file_.get(), target, nullptr, FILE_BEGIN);
}

// Ends the chunk that lies from `body_start` to the file pointer.
void WavFile::EndChunk(std::uint64_t body_start) noexcept {
  LARGE_INTEGER position = {};
  SetFilePointerEx(file_.get(), LARGE_INTEGER{}, &position, FILE_CURRENT);
  std::uint64_t size = static_cast<std::uint64_t>(position.QuadPart) - body_start;
  const auto padding = static_cast<std::size_t>((4 - size % 4) % 4);
  constexpr std::array<std::byte, 4> kZeros = {};
  WriteBytes(std::span(kZeros).first(padding));
  size += padding;
  std::array<std::byte, 4> field;
  for (std::size_t i = 0; i < field.size(); ++i) field[i] = static_cast<std::byte>(size >> (8 * i));
  SeekTo(body_start - field.size());
  WriteBytes(field);
  SeekTo(body_start + size);
}

}  // namespace marlinda
