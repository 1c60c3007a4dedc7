// MpegStream: an MPEG audio file (layers 1 to 3) as 16-bit samples, decoded by libmpg123. Input is
// untrusted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "import/byte_source.h"
#include "import/sound_file_info.h"

struct mpg123_handle_struct;

namespace marlinda {

// Omits the encoder's delay and padding if the file states them. Damaged frames become silence.
// Bytes between frames are skipped. Frames of a different format are converted to the first
// frame's format.
class MpegStream {
 public:
  // Returns null if there are no frames. `file` must outlive the stream.
  static std::unique_ptr<MpegStream> Open(ByteSource& file, const ByteRange& range);

  ~MpegStream();

  std::int32_t samples_per_sec() const noexcept { return samples_per_sec_; }
  std::int16_t channels() const noexcept { return channels_; }

  // Scans all headers. Returns the length in sample frames, or 0 on failure. Call it before Read.
  std::int64_t CountFrames();

  // Fills `samples`, whose size must be a whole number of frames. Returns the number of samples,
  // which is smaller at the end of the stream.
  std::size_t Read(std::span<std::int16_t> samples);

  // True once Read has reached the end of the range without an error.
  bool has_ended_well() const noexcept { return ended_well_; }

 private:
  struct Reader;
  struct Close {
    void operator()(mpg123_handle_struct* handle) const noexcept;
  };

  MpegStream(ByteSource& file, const ByteRange& range);
  bool FindFrames();
  bool IsLikely();
  void Fill() noexcept;

  ByteSource& file_;
  const ByteRange range_;
  std::uint64_t position_ = 0;  // position of the decoder's next byte in the range
  // The first `buffered_` bytes of the buffer are the range's bytes from `buffer_begin_` on.
  std::vector<std::byte> buffer_;
  std::uint64_t buffer_begin_ = 0;
  std::size_t buffered_ = 0;
  std::unique_ptr<mpg123_handle_struct, Close> handle_;
  std::int32_t samples_per_sec_ = 0;
  std::int16_t channels_ = 0;
  bool ended_well_ = false;
};

}  // namespace marlinda
