// MpegStream: the sound of an MPEG audio file (layers 1 to 3) as 16-bit samples, decoded by
// libmpg123. Input is hostile until proven otherwise.
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

// The delay and the padding of the encoder are left out where the file names them. Damaged frames
// are silent, bytes between frames are passed over, and frames of another format are converted to
// that of the first.
class MpegStream {
 public:
  // Null where there are no frames. `file` outlives the stream.
  static std::unique_ptr<MpegStream> Open(ByteSource& file, const ByteRange& range);

  ~MpegStream();

  std::int32_t samples_per_sec() const noexcept { return samples_per_sec_; }
  std::int16_t channels() const noexcept { return channels_; }

  // Looks at the header of every frame. To be called before the first Read.
  std::int64_t CountFrames();

  // Fills `samples`, which takes whole frames, and returns the number of samples: fewer at the end
  // of the stream.
  std::size_t Read(std::span<std::int16_t> samples);

  // Everything has been read, to the end of the range.
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
  std::uint64_t position_ = 0;  // in the range, of the next byte for the decoder
  std::vector<std::byte>
      buffer_;  // its first `buffered_` bytes lie at `buffer_begin_` in the range
  std::uint64_t buffer_begin_ = 0;
  std::size_t buffered_ = 0;
  std::unique_ptr<mpg123_handle_struct, Close> handle_;
  std::int32_t samples_per_sec_ = 0;
  std::int16_t channels_ = 0;
  bool ended_well_ = false;
};

}  // namespace marlinda
