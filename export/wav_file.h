// WavFile: a WAV file while it is written.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "core/handle.h"
#include "export/wav_layout.h"

namespace marlinda {

// Creates or empties the file `name`, for its owner alone to write. No handle, and the thread's
// last error, when that fails.
FileHandle CreateTargetFile(const std::string& name) noexcept;

// False, and the thread's last error, when not all of it could be written.
bool WriteToFile(HANDLE file, std::span<const std::byte> bytes) noexcept;

// Chunks are padded to a multiple of 4 bytes, and the padding counts in their sizes. Sizes are
// 32-bit and nothing checks them: in a file past 4 GiB the fields wrap, and the samples go on at
// the true end.
//
// A write that fails is not reported: the file is finished as far as it goes.
class WavFile {
 public:
  // Takes ownership of a handle, or of none. An open file is closed as it stands.
  void Attach(FileHandle file) noexcept;
  bool IsOpen() const noexcept { return static_cast<bool>(file_); }

  // Writes the header. Throws std::bad_alloc.
  void Begin(const WavFormat& format, ManyChannels many_channels);
  void Write(std::span<const std::byte> samples) noexcept { WriteBytes(samples); }
  // Ends the samples; writes `trailer`, fills in the sizes and closes the file. Destruction closes
  // the file alone and leaves the sizes at 0.
  void Finish(std::span<const std::byte> trailer = {}) noexcept;

 private:
  bool WriteBytes(std::span<const std::byte> bytes) noexcept;
  void SeekTo(std::uint64_t position) noexcept;
  void EndChunk(std::uint64_t body_start) noexcept;

  FileHandle file_;
  std::uint64_t data_start_ = 0;  // 0 while the header is not written
};

}  // namespace marlinda
