// VorbisStream: an Ogg Vorbis file as 16-bit samples, decoded by libvorbisfile. Input is untrusted.
// Reading always ends and stays within the caller's buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

#include "core/records.h"

namespace marlinda {

struct CloseFile {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
class VorbisWorkers;

using FilePointer = std::unique_ptr<std::FILE, CloseFile>;

class VorbisStream {
 public:
  // Takes ownership of the file, which must be open for binary reading. Returns null if the file is
  // not Ogg Vorbis or is a chain of more than 1000 links. Throws std::bad_alloc if memory runs out
  // or the decoder needs more than CodecMemory::kMaxBytes. Both failures close the file. Read
  // decodes on up to `threads` worker threads, or on its caller's thread if `threads` is 0 or 1.
  static std::unique_ptr<VorbisStream> Open(FilePointer file,
                                            unsigned threads = std::thread::hardware_concurrency());

  ~VorbisStream();

  // The format of a chain's first link and of all samples that Read delivers.
  std::int32_t samples_per_sec() const noexcept { return samples_per_sec_; }
  std::int16_t channels() const noexcept { return channels_; }

  // The number of frames in all links according to the file's headers, limited to the number that a
  // file of this size can hold. 0 or negative if the headers lack the length. From a damaged file,
  // Read may deliver more or fewer frames.
  std::int64_t total_frames() const noexcept { return total_frames_; }
  // The number of frames before the first link with a different format.
  std::int64_t readable_frames() const noexcept { return readable_frames_; }

  // The rate of the compressed stream: the header's nominal rate, otherwise the average over the
  // file, otherwise 0.
  std::int32_t average_bytes_per_sec() const noexcept { return average_bytes_per_sec_; }

  // The user comments of the first link, as unconverted bytes (UTF-8 in a valid file), each up to
  // its first NUL. Valid until this object is destroyed or Read throws. Empty after a throw.
  std::vector<std::string_view> Comments() const;

  // Allocates the decoder's memory now instead of in the first Read. Throws std::bad_alloc.
  void Prepare();

  // Limits Read to `count` frames from `first` on. These frames must lie within total_frames. Call
  // Select before the first Read. Returns false if the file is damaged; Read then delivers nothing.
  // Throws std::bad_alloc.
  bool Select(std::int64_t first, std::int64_t count);

  // Decodes the next block of interleaved 16-bit samples and returns the number of samples, a whole
  // number of frames. The buffer must hold at least one frame. Returns 0 at the end. Ends early
  // - if a link of a chain changes the sample rate or the channel count, because the announced
  //   format must hold for all samples;
  // - at the first error, such as a hole where pages are damaged or missing, because later samples
  //   would be misplaced.
  std::size_t Read(std::span<std::int16_t> buffer);

 private:
  struct Decoder;

  VorbisStream(std::unique_ptr<Decoder> decoder, unsigned threads);
  std::size_t ReadFromWorkers(std::span<std::int16_t> buffer);
  std::size_t ReadFromLibrary(std::span<std::int16_t> buffer);

  std::unique_ptr<Decoder> decoder_;
  const unsigned threads_;
  std::unique_ptr<VorbisWorkers> workers_;
  int workers_link_ = -1;  // link of the chain for which workers were last started
  std::int32_t samples_per_sec_ = 0;
  std::int16_t channels_ = 0;
  std::int64_t total_frames_ = 0;
  std::int64_t readable_frames_ = 0;
  std::int32_t average_bytes_per_sec_ = 0;
  std::int64_t left_ = std::numeric_limits<std::int64_t>::max();  // frames that Read may deliver
  int link_ = 0;                                                  // link of the latest Read
  bool ended_ = false;
};

// Stores one user comment "KEY=value" in `tags`. The key's case does not matter. A later comment
// replaces an earlier comment with the same key. The year is the first four characters of DATE.
// Ignores other keys and comments without a key or "=".
void ApplyVorbisComment(std::string_view comment, Tags& tags);

}  // namespace marlinda
