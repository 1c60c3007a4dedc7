// Mp3Stream: encodes 16-bit PCM with LAME to MPEG audio layer 3 at a constant bit rate.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

struct lame_global_struct;

namespace marlinda {

struct Mp3Format {
  int samples_per_sec = 0;
  int channels = 0;
  int bit_rate_kbit = 0;

  bool operator==(const Mp3Format&) const = default;
};

// Returns the formats of MPEG 1, 2 and 2.5 (ISO/IEC 11172-3, 13818-3) for a rate and a channel
// count, by ascending bit rate. Returns none for an unsupported rate or channel count.
std::vector<Mp3Format> Mp3Formats(int samples_per_sec, int channels);

// The supported sample rates.
std::span<const int> Mp3Rates() noexcept;

// An encoder whose output keeps the input's level at every bit rate.
class Mp3Stream {
 public:
  // `format` must be one of Mp3Formats. With an information frame, the stream begins with a silent
  // frame, which the caller must overwrite with InfoFrame at the end. Throws std::bad_alloc.
  Mp3Stream(const Mp3Format& format, bool has_info_frame);
  Mp3Stream(const Mp3Stream&) = delete;
  Mp3Stream& operator=(const Mp3Stream&) = delete;
  ~Mp3Stream();

  // Encodes whole sample frames, interleaved. Returns the encoded bytes, valid until the next call.
  // Throws std::runtime_error.
  std::span<const std::byte> Encode(std::span<const std::byte> pcm);
  // Returns the last bytes. Do not call Encode afterwards.
  std::span<const std::byte> Finish();
  // Call InfoFrame after Finish. Returns a frame that holds length, delay and padding, and has the
  // size of the first frame. Returns nothing if the stream has no information frame.
  std::span<const std::byte> InfoFrame();

 private:
  struct Close {
    void operator()(lame_global_struct* encoder) const noexcept;
  };
  using Encoder = std::unique_ptr<lame_global_struct, Close>;

  static Encoder Open(const Mp3Format& format, bool has_info_frame, float scale);

  std::span<const std::byte> Ready(int bytes) const;

  const int channels_;
  Encoder encoder_;
  std::vector<std::byte> ready_;
};

}  // namespace marlinda
