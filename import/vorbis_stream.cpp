#include "import/vorbis_stream.h"

// Leaves out unused tables of callbacks.
#define OV_EXCLUDE_STATIC_CALLBACKS
#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "import/codec_memory.h"
#include "import/vorbis_samples.h"

namespace marlinda {

// The decoder's state holds pointers into itself and so must never move.
struct VorbisStream::Decoder {
  FilePointer input;
  CodecMemory memory;
  OggVorbis_File file = {};
  // Not while a call is under way that may run out of memory, nor after one that did.
  bool whole = true;

  explicit Decoder(FilePointer opened) : input(std::move(opened)) {}
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  // For library calls that may allocate.
  template <class Function>
  auto Call(Function&& function) {
    const CodecMemory::Use use(memory);
    whole = false;
    const auto result = function(&file);
    whole = true;
    return result;
  }

  // Even clearing takes memory. Does little after a failed opening.
  ~Decoder() {
    if (!whole) return;
    try {
      Call([](OggVorbis_File* state) { return ov_clear(state); });
    } catch (const std::bad_alloc&) {
    }
  }
};

namespace {

bool FitsAFormat(const vorbis_info* info) noexcept {
  return info != nullptr && info->rate > 0 &&
         info->rate <= std::numeric_limits<std::int32_t>::max() && info->channels > 0 &&
         info->channels <= std::numeric_limits<std::int16_t>::max();
}

}  // namespace

std::unique_ptr<VorbisStream> VorbisStream::Open(FilePointer file) {
  if (file == nullptr) return nullptr;
  auto decoder = std::make_unique<Decoder>(std::move(file));
  std::FILE* const input = decoder->input.get();
  const auto open = [input](OggVorbis_File* state) { return ov_open(input, state, nullptr, 0); };
  if (decoder->Call(open) != 0) return nullptr;
  // Whatever becomes of the state, the file is closed, and once.
  decoder->file.callbacks.close_func = nullptr;
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
  if (!decoder_->whole) return result;
  const vorbis_comment* const comments = ov_comment(&decoder_->file, -1);
  if (comments == nullptr) return result;
  for (int i = 0; i < comments->comments; ++i) {
    if (comments->user_comments[i] != nullptr) result.emplace_back(comments->user_comments[i]);
  }
  return result;
}

// The library's own 16-bit decoding converts the same floats in the same blocks, but more slowly.
std::size_t VorbisStream::Read(std::span<std::int16_t> buffer) {
  constexpr std::size_t kMaxFrames = std::numeric_limits<int>::max();
  const auto channels = static_cast<std::size_t>(channels_);
  const auto room = static_cast<int>(std::min(buffer.size() / channels, kMaxFrames));
  OggVorbis_File* const file = &decoder_->file;
  float** planes = nullptr;
  int link = 0;
  if (ended_) return 0;
  ended_ = true;
  const long frames = decoder_->Call(
      [&](OggVorbis_File* state) { return ov_read_float(state, &planes, room, &link); });
  const vorbis_info* const info = ov_info(file, -1);
  ended_ = frames <= 0 || info == nullptr || info->rate != samples_per_sec_ ||
           info->channels != channels_;
  if (ended_) return 0;
  PackVorbisFrames(planes, channels, static_cast<std::size_t>(frames), buffer.data());
  return static_cast<std::size_t>(frames) * channels;
}

void ApplyVorbisComment(std::string_view comment, Tags& tags) {
  const std::size_t equals = comment.find('=');
  if (equals == std::string_view::npos || equals == 0) return;
  std::string key(comment.substr(0, equals));
  // Keys are ASCII, whatever the program's locale.
  for (char& c : key) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  const std::string_view value = comment.substr(equals + 1);
  if (key == "TITLE") tags.title = value;
  if (key == "ARTIST") tags.artist = value;
  if (key == "ALBUM") tags.album = value;
  if (key == "DATE") tags.year = value.substr(0, 4);
  if (key == "GENRE") tags.genre = value;
}

}  // namespace marlinda
