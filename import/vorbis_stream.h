// An Ogg Vorbis file as a run of 16-bit samples, decoded by libvorbisfile. Files are hostile until
// proven otherwise: whatever they hold, reading ends and stays inside the caller's buffer.
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
  // Takes the file over, which is open for binary reading. Null, and the file closed, when it is
  // not an Ogg Vorbis file, or a chain of more than 1000 links. std::bad_alloc, and the file
  // closed, when there is not enough memory; a decoder gets CodecMemory::kMaxBytes at most.
  // Decodes on `threads` threads of its own, a few at most. With one, Read decodes itself.
  static std::unique_ptr<VorbisStream> Open(FilePointer file,
                                            unsigned threads = std::thread::hardware_concurrency());

  ~VorbisStream();

  // The format of the first link of a chain; Read delivers nothing else.
  std::int32_t samples_per_sec() const noexcept { return samples_per_sec_; }
  std::int16_t channels() const noexcept { return channels_; }

  // Frames of the whole file by its headers, all links of a chain included. Not positive where they
  // are missing, and no more than a file of this size can hold. Read may deliver more or fewer from
  // a damaged file.
  std::int64_t total_frames() const noexcept { return total_frames_; }
  // The frames of these before the first link of another format.
  std::int64_t readable_frames() const noexcept { return readable_frames_; }

  // Of the compressed stream: the nominal rate of its header, else the average over the file, else
  // 0.
  std::int32_t average_bytes_per_sec() const noexcept { return average_bytes_per_sec_; }

  // The user comments of the first link, as the bytes they are (UTF-8 in a proper file), each up to
  // its first NUL; none once a Read has thrown. They live as long as this object, or until then.
  std::vector<std::string_view> Comments() const;

  // Makes the decoder ready for Read, which does it otherwise. std::bad_alloc as there.
  void Prepare();

  // Read then delivers `count` frames from `first` on, which lie within total_frames. False when
  // the file is damaged; Read then delivers nothing. To be called before the first Read.
  // std::bad_alloc as there.
  bool Select(std::int64_t first, std::int64_t count);

  // Decodes the next block of interleaved 16-bit samples, whole frames, and returns how many
  // samples it has: at least one frame's and at most what the buffer, of one frame or more, has
  // room for. 0 at the end, which comes early
  // - where a link of a chain changes the sample rate or the channel count, so that the format
  //   announced stays true of all that is delivered;
  // - at the first error, such as a hole where pages are damaged or missing: what lies behind it
  //   would no longer be in its place.
  // std::bad_alloc when the decoder gets no memory; that is the end as well.
  std::size_t Read(std::span<std::int16_t> buffer);

 private:
  struct Decoder;

  VorbisStream(std::unique_ptr<Decoder> decoder, unsigned threads);
  std::size_t ReadFromWorkers(std::span<std::int16_t> buffer);
  std::size_t ReadFromLibrary(std::span<std::int16_t> buffer);

  std::unique_ptr<Decoder> decoder_;
  const unsigned threads_;
  std::unique_ptr<VorbisWorkers> workers_;
  int workers_link_ = -1;  // the latest that had workers
  std::int32_t samples_per_sec_ = 0;
  std::int16_t channels_ = 0;
  std::int64_t total_frames_ = 0;
  std::int64_t readable_frames_ = 0;
  std::int32_t average_bytes_per_sec_ = 0;
  std::int64_t left_ = std::numeric_limits<std::int64_t>::max();  // frames that Read may deliver
  int link_ = 0;  // that the latest Read delivered from
  bool ended_ = false;
};

// Takes one user comment, "KEY=value" with the key in any case, into `tags`. A later comment
// replaces an earlier one with the same key. DATE gives the year: its first four characters, so
// that a full date counts too. Comments with other keys, without "=" or beginning with it are
// ignored.
void ApplyVorbisComment(std::string_view comment, Tags& tags);

}  // namespace marlinda
