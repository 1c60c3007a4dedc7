// WavFile: a WAV file that is being written.
#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "core/file_access.h"
#include "core/handle.h"
#include "export/wav_layout.h"

namespace marlinda {

// Creates or empties the file `name`, with exclusive write access. On failure, returns an empty
// handle and sets the thread's last error.
inline FileHandle CreateTargetFile(const std::string& name) noexcept {
  const auto create = [&name](DWORD disposition) {
    return FileHandle(CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, disposition,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
  };
  // Under Wine, CREATE_ALWAYS truncates even a new file. Some file systems write a truncated file
  // to the disk on closing, which takes longer than the export.
  FileHandle file = create(CREATE_NEW);
  return file ? std::move(file) : create(CREATE_ALWAYS);
}

// Each chunk is padded to a multiple of 4 bytes, and its size includes the padding. The size fields
// have 32 bits and wrap beyond 4 GiB, but all samples are written.
//
// Failed writes are not reported. The file is finished as far as possible.
class WavFile {
 public:
  // Takes over the handle `file`, which may be empty. Closes a previous file, but does not fill in
  // its chunk sizes.
  void Attach(FileHandle file) noexcept {
    file_ = std::move(file);
    data_start_ = 0;
    SeekTo(0);
  }
  bool IsOpen() const noexcept { return static_cast<bool>(file_); }

  // Writes the header. Throws std::bad_alloc.
  void Begin(const WavFormat& format, ManyChannels many_channels) {
    const LittleEndianBytes header = WavHeader(format, many_channels);
    // If the header cannot be written, the sizes are not filled in.
    if (WriteBytes(header.bytes())) data_start_ = header.bytes().size();
  }
  void Write(std::span<const std::byte> samples) noexcept { WriteBytes(samples); }
  // Ends the "data" chunk, writes `trailer`, fills in the sizes and closes the file. The destructor
  // only closes the file and leaves the sizes at 0.
  void Finish(std::span<const std::byte> trailer = {}) noexcept {
    if (data_start_ != 0) {
      EndChunk(data_start_);
      WriteBytes(trailer);
      EndChunk(kRiffStart);
    }
    Attach(FileHandle());
  }

 private:
  bool WriteBytes(std::span<const std::byte> bytes) noexcept {
    return file_ && SUCCEEDED(WriteAll(file_.get(), bytes));
  }
  void SeekTo(std::uint64_t position) noexcept {
    LARGE_INTEGER target;
    target.QuadPart = static_cast<LONGLONG>(position);
    if (file_) SetFilePointerEx(file_.get(), target, nullptr, FILE_BEGIN);
  }
  // Pads the chunk whose body reaches from `body_start` to the file pointer. Fills in its size.
  void EndChunk(std::uint64_t body_start) noexcept {
    LARGE_INTEGER position = {};
    SetFilePointerEx(file_.get(), LARGE_INTEGER{}, &position, FILE_CURRENT);
    std::uint64_t size = static_cast<std::uint64_t>(position.QuadPart) - body_start;
    const auto padding = static_cast<std::size_t>((4 - size % 4) % 4);
    constexpr std::array<std::byte, 4> kZeros = {};
    WriteBytes(std::span(kZeros).first(padding));
    size += padding;
    std::array<std::byte, 4> field;
    for (std::size_t i = 0; i < field.size(); ++i)
      field[i] = static_cast<std::byte>(size >> (8 * i));
    SeekTo(body_start - field.size());
    WriteBytes(field);
    SeekTo(body_start + size);
  }

  static constexpr std::uint64_t kRiffStart = 8;  // where the body of "RIFF" begins

  FileHandle file_;
  std::uint64_t data_start_ = 0;  // 0 until the header is written
};

}  // namespace marlinda
