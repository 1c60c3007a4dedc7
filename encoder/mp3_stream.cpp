#include "encoder/mp3_stream.h"

#include <lame/lame.h>

#include <algorithm>
#include <new>
#include <stdexcept>

namespace marlinda {
namespace {

constexpr int kMaxChannels = 2;
// LAME's quality, where 0 is the best. 2 is nearly as good and many times faster than real time.
constexpr int kQuality = 2;
// Bytes of output buffer that LAME needs in addition to 1.25 bytes per sample frame of input.
constexpr std::size_t kMinBuffer = 7200;
constexpr int kBitRatesPerVersion = 14;

constexpr int kRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};

// Returns LAME's number for the MPEG version of a rate.
int VersionOf(int samples_per_sec) noexcept {
  if (samples_per_sec >= 32000) return 1;
  return samples_per_sec >= 16000 ? 0 : 2;
}

unsigned char* Bytes(std::vector<std::byte>& buffer) noexcept {
  return reinterpret_cast<unsigned char*>(buffer.data());
}

}  // namespace

std::span<const int> Mp3Rates() noexcept { return kRates; }

std::vector<Mp3Format> Mp3Formats(int samples_per_sec, int channels) {
  std::vector<Mp3Format> formats;
  if (channels < 1 || channels > kMaxChannels ||
      std::ranges::find(kRates, samples_per_sec) == std::end(kRates)) {
    return formats;
  }
  for (int index = 1; index <= kBitRatesPerVersion; ++index) {
    const int rate = lame_get_bitrate(VersionOf(samples_per_sec), index);
    if (rate > 0) formats.push_back({samples_per_sec, channels, rate});
  }
  return formats;
}

void Mp3Stream::Close::operator()(lame_global_struct* encoder) const noexcept {
  lame_close(encoder);
}

Mp3Stream::Encoder Mp3Stream::Open(const Mp3Format& format, bool has_info_frame, float scale) {
  Encoder owner(lame_init());
  lame_global_struct* const encoder = owner.get();
  if (encoder == nullptr) throw std::bad_alloc();
  lame_set_in_samplerate(encoder, format.samples_per_sec);
  lame_set_out_samplerate(encoder, format.samples_per_sec);
  lame_set_num_channels(encoder, format.channels);
  lame_set_mode(encoder, format.channels == 1 ? MONO : JOINT_STEREO);
  lame_set_VBR(encoder, vbr_off);
  lame_set_brate(encoder, format.bit_rate_kbit);
  lame_set_quality(encoder, kQuality);
  lame_set_scale(encoder, scale);
  lame_set_bWriteVbrTag(encoder, has_info_frame ? 1 : 0);
  lame_set_write_id3tag_automatic(encoder, 0);
  if (lame_init_params(encoder) < 0) throw std::bad_alloc();
  return owner;
}

// Below 256 kbit/s, LAME multiplies the scale by a factor of its own. The inner Open only finds
// this factor, which the outer Open cancels.
Mp3Stream::Mp3Stream(const Mp3Format& format, bool has_info_frame)
    : channels_(format.channels),
      encoder_(Open(format, has_info_frame,
                    1 / lame_get_scale(Open(format, has_info_frame, 1).get()))) {}

Mp3Stream::~Mp3Stream() = default;

std::span<const std::byte> Mp3Stream::Encode(std::span<const std::byte> pcm) {
  const std::size_t frames = pcm.size() / (sizeof(short) * static_cast<std::size_t>(channels_));
  ready_.resize(std::max(ready_.size(), frames * 5 / 4 + kMinBuffer));
  // LAME does not write to its input.
  auto* const samples = const_cast<short*>(reinterpret_cast<const short*>(pcm.data()));
  const auto count = static_cast<int>(frames);
  const auto room = static_cast<int>(ready_.size());
  return Ready(
      channels_ == 1
          ? lame_encode_buffer(encoder_.get(), samples, samples, count, Bytes(ready_), room)
          : lame_encode_buffer_interleaved(encoder_.get(), samples, count, Bytes(ready_), room));
}

std::span<const std::byte> Mp3Stream::Finish() {
  ready_.resize(std::max(ready_.size(), kMinBuffer));
  return Ready(lame_encode_flush(encoder_.get(), Bytes(ready_), static_cast<int>(ready_.size())));
}

std::span<const std::byte> Mp3Stream::InfoFrame() {
  const std::size_t size = lame_get_lametag_frame(encoder_.get(), Bytes(ready_), ready_.size());
  return Ready(size > ready_.size() ? 0 : static_cast<int>(size));
}

std::span<const std::byte> Mp3Stream::Ready(int bytes) const {
  if (bytes < 0) throw std::runtime_error("the MP3 encoder failed");
  return std::span(ready_).first(static_cast<std::size_t>(bytes));
}

}  // namespace marlinda
