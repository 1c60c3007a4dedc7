#include "import/mpeg_stream.h"

#include <mpg123.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "import/byte_reader.h"

namespace marlinda {

// The decoder's callbacks. They read through a buffer, because the decoder reads few bytes at once.
struct MpegStream::Reader {
  static mpg123_ssize_t Read(void* stream, void* out, std::size_t bytes) noexcept {
    auto& self = *static_cast<MpegStream*>(stream);
    if (self.position_ < self.buffer_begin_ ||
        self.position_ >= self.buffer_begin_ + self.buffered_) {
      self.Fill();
    }
    const auto offset = static_cast<std::size_t>(self.position_ - self.buffer_begin_);
    const std::size_t count = std::min(bytes, self.buffered_ - offset);
    std::memcpy(out, self.buffer_.data() + offset, count);
    self.position_ += count;
    return static_cast<mpg123_ssize_t>(count);
  }

  static off_t Seek(void* stream, off_t offset, int origin) noexcept {
    auto& self = *static_cast<MpegStream*>(stream);
    if (origin == SEEK_CUR) offset += static_cast<off_t>(self.position_);
    if (origin == SEEK_END) offset += static_cast<off_t>(self.range_.bytes);
    if (offset < 0) return -1;
    self.position_ = static_cast<std::uint64_t>(offset);
    return offset;
  }
};

void MpegStream::Close::operator()(mpg123_handle_struct* handle) const noexcept {
  mpg123_delete(handle);
}

MpegStream::MpegStream(ByteSource& file, const ByteRange& range)
    : file_(file), range_(range), buffer_(65536) {}

MpegStream::~MpegStream() = default;

std::unique_ptr<MpegStream> MpegStream::Open(ByteSource& file, const ByteRange& range) {
  std::unique_ptr<MpegStream> stream(new MpegStream(file, range));
  return stream->FindFrames() ? std::move(stream) : nullptr;
}

void MpegStream::Fill() noexcept {
  buffer_begin_ = position_;
  const std::uint64_t left = range_.bytes - std::min(position_, range_.bytes);
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, buffer_.size()));
  buffered_ = file_.Read(range_.offset + position_, std::span(buffer_).first(wanted));
}

bool MpegStream::FindFrames() {
  int error = MPG123_OK;
  handle_.reset(mpg123_new(nullptr, &error));
  if (handle_ == nullptr) throw std::bad_alloc();
  mpg123_handle* const handle = handle_.get();
  mpg123_param(handle, MPG123_ADD_FLAGS, MPG123_QUIET | MPG123_SKIP_ID3V2, 0);
  mpg123_replace_reader_handle(handle, Reader::Read, Reader::Seek, nullptr);
  mpg123_format_none(handle);
  mpg123_format2(handle, 0, MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16);
  long rate = 0;
  int channels = 0;
  int encoding = 0;
  if (mpg123_open_handle(handle, this) != MPG123_OK ||
      mpg123_getformat(handle, &rate, &channels, &encoding) != MPG123_OK) {
    return false;
  }
  if (!IsLikely()) return false;
  samples_per_sec_ = rate;
  channels_ = static_cast<std::int16_t>(channels);
  // From here on, the library converts every frame to this format and searches without limit for
  // the next frame after damage.
  mpg123_format_none(handle);
  mpg123_param(handle, MPG123_RESYNC_LIMIT, -1, 0);
  return mpg123_format(handle, rate, channels, MPG123_ENC_SIGNED_16) == MPG123_OK &&
         mpg123_seek(handle, 0, SEEK_SET) == 0;
}

// Any large file contains bytes that look like a frame. A stream that begins with a frame or an ID3
// tag must have a second frame, with or without a gap. Any other stream must have four frames
// without gaps and must not be layer 1. Layer 1 is rare, and tables in programs look like it.
bool MpegStream::IsLikely() {
  constexpr std::string_view kTag = "ID3";
  mpg123_handle* const handle = handle_.get();
  std::byte start[kTag.size()] = {};
  file_.Read(range_.offset, start);
  const bool at_start = mpg123_framepos(handle) == 0 || AsText(start) == kTag;
  for (int followers = at_start ? 1 : 3; followers > 0; --followers) {
    mpg123_frameinfo info = {};
    mpg123_info(handle, &info);
    const off_t end = mpg123_framepos(handle) + info.framesize;
    const int result = mpg123_framebyframe_next(handle);
    if (result != MPG123_OK && result != MPG123_NEW_FORMAT) return false;
    if (!at_start && (info.layer == 1 || mpg123_framepos(handle) != end)) return false;
  }
  return true;
}

std::int64_t MpegStream::CountFrames() {
  return mpg123_scan(handle_.get()) == MPG123_OK
             ? std::max<std::int64_t>(0, mpg123_length(handle_.get()))
             : 0;
}

std::size_t MpegStream::Read(std::span<std::int16_t> samples) {
  const auto bytes = std::as_writable_bytes(samples);
  std::size_t done = 0;
  int result = MPG123_OK;
  while (done < bytes.size() && (result == MPG123_OK || result == MPG123_NEW_FORMAT)) {
    std::size_t count = 0;
    result = mpg123_read(handle_.get(), bytes.data() + done, bytes.size() - done, &count);
    done += count;
  }
  ended_well_ = result == MPG123_DONE;
  return done / sizeof(std::int16_t);
}

}  // namespace marlinda
