#include "import/vorbis_stream.h"

// Leaves out tables of callbacks that nobody here uses.
#define OV_EXCLUDE_STATIC_CALLBACKS
#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "import/vorbis_samples.h"

namespace marlinda {

// The decoder's state holds pointers into itself and so must never move.
struct VorbisStream::Decoder {
  OggVorbis_File file = {};

  Decoder() = default;
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  // Closes the file as well. Does nothing after a failed opening.
  ~Decoder() { ov_clear(&file); }
};

namespace {

bool FitsAFormat(const vorbis_info* info) noexcept {
  return info != nullptr && info->rate > 0 &&
         info->rate <= std::numeric_limits<std::int32_t>::max() && info->channels > 0 &&
         info->channels <= std::numeric_limits<std::int16_t>::max();
}

}  // namespace

std::unique_ptr<VorbisStream> VorbisStream::Open(FilePointer file) {
  auto decoder = std::make_unique<Decoder>();
  if (file == nullptr || ov_open(file.get(), &decoder->file, nullptr, 0) != 0) return nullptr;
  static_cast<void>(file.release());
  if (!FitsAFormat(ov_info(&decoder->file, -1))) return nullptr;
  return std::unique_ptr<VorbisStream>(new VorbisStream(std::move(decoder)));
}

VorbisStream::VorbisStream(std::unique_ptr<Decoder> decoder) : decoder_(std::move(decoder)) {
  OggVorbis_File* const file = &decoder_->file;
  const vorbis_info* const info = ov_info(file, -1);
  samples_per_sec_ = static_cast<std::int32_t>(info->rate);
  channels_ = static_cast<std::int16_t>(info->channels);
  total_frames_ = ov_pcm_total(file, -1);
  const long bits_per_sec =
      info->bitrate_nominal > 0 ? info->bitrate_nominal : ov_bitrate(file, -1);
  average_bytes_per_sec_ = static_cast<std::int32_t>(
      std::clamp<long>(bits_per_sec / 8, 0, std::numeric_limits<std::int32_t>::max()));
}

VorbisStream::~VorbisStream() = default;

std::vector<std::string_view> VorbisStream::Comments() const {
  std::vector<std::string_view> result;
  const vorbis_comment* const comments = ov_comment(&decoder_->file, -1);
  if (comments == nullptr) return result;
  for (int i = 0; i < comments->comments; ++i) {
    if (comments->user_comments[i] != nullptr) result.emplace_back(comments->user_comments[i]);
  }
  return result;
}

// The floats are what the library's own 16-bit decoding starts from, at the same ends of blocks.
std::size_t VorbisStream::Read(std::span<std::int16_t> buffer) noexcept {
  constexpr std::size_t kMostFrames = std::numeric_limits<int>::max();
  const auto channels = static_cast<std::size_t>(channels_);
  const auto room = static_cast<int>(std::min(buffer.size() / channels, kMostFrames));
  OggVorbis_File* const file = &decoder_->file;
  float** planes = nullptr;
  if (ended_) return 0;
  int link = 0;
  const long frames = ov_read_float(file, &planes, room, &link);
  const vorbis_info* const info = ov_info(file, -1);
  ended_ = frames <= 0 || info == nullptr || info->rate != samples_per_sec_ ||
           info->channels != channels_;
  if (ended_) return 0;
  PackVorbisFrames(planes, channels, static_cast<std::size_t>(frames), buffer.data());
  return static_cast<std::size_t>(frames) * channels;
}

}  // namespace marlinda
