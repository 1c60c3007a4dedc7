#include "import/vorbis_stream.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "import/codec_memory.h"
#include "import/vorbis_samples.h"
#include "import/vorbis_workers.h"

namespace marlinda {

namespace {

int SeekFile(std::FILE* file, std::int64_t offset, int origin) noexcept {
#ifdef _WIN32
  return _fseeki64(file, offset, origin);
#else
  return fseeko(file, offset, origin);
#endif
}

std::int64_t TellFile(std::FILE* file) noexcept {
#ifdef _WIN32
  return _ftelli64(file);
#else
  return ftello(file);
#endif
}

}  // namespace

// Must not move, because the library's state holds pointers to its own fields.
struct VorbisStream::Decoder {
  FilePointer input;
  CodecMemory memory;
  OggVorbis_File file = {};
  const vorbis_comment* comments = nullptr;
  // Bytes that the library may still read.
  std::int64_t allowance = std::numeric_limits<std::int64_t>::max();
  // False during a call that may run out of memory, and after a call that ran out of memory.
  bool whole = true;

  explicit Decoder(FilePointer opened) : input(std::move(opened)) {}
  // Makes a library call that may allocate.
  template <class Function>
  auto Call(Function&& function) {
    const CodecMemory::Use use(memory);
    whole = false;
    const auto result = function(&file);
    whole = true;
    return result;
  }

  // Returns the library's result. Limits the bytes read, because the library reads parts of a
  // chained file several times. A hostile file could make the library read forever.
  int Open() {
    std::FILE* const opened = input.get();
    const std::int64_t size = SeekFile(opened, 0, SEEK_END) == 0 ? TellFile(opened) : 0;
    std::rewind(opened);
    allowance = 4 * size + (std::int64_t{1} << 30);
    const int result = Call([this](OggVorbis_File* state) {
      return ov_open_callbacks(this, state, nullptr, 0, Callbacks());
    });
    allowance = std::numeric_limits<std::int64_t>::max();
    return result;
  }

  // Omits the close callback, because `input` closes the file.
  static ov_callbacks Callbacks() noexcept {
    ov_callbacks callbacks = {};
    // The library treats zero bytes with errno set as a read error.
    callbacks.read_func = [](void* to, std::size_t size, std::size_t count, void* source) {
      auto* const decoder = static_cast<Decoder*>(source);
      const std::size_t read = std::fread(to, size, count, decoder->input.get());
      decoder->allowance -= static_cast<std::int64_t>(size * read);
      if (decoder->allowance >= 0) return read;
      errno = EFBIG;
      return std::size_t{0};
    };
    callbacks.seek_func = [](void* source, ogg_int64_t offset, int origin) {
      return SeekFile(static_cast<Decoder*>(source)->input.get(), offset, origin);
    };
    // A library without scripts/lib/libvorbis.patch expects the position as a long. If long has 32
    // bits, the call fails for positions beyond 2 GiB.
    callbacks.tell_func = [](void* source) {
      using Position = decltype(ov_callbacks().tell_func(nullptr));
      const std::int64_t position = TellFile(static_cast<Decoder*>(source)->input.get());
      return std::in_range<Position>(position) ? static_cast<Position>(position) : Position{-1};
    };
    return callbacks;
  }

  // ov_clear allocates memory, so it may throw. After a failed Open, ov_clear is allowed.
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

std::unique_ptr<VorbisStream> VorbisStream::Open(FilePointer file, unsigned threads) {
  if (file == nullptr) return nullptr;
  auto decoder = std::make_unique<Decoder>(std::move(file));
  if (decoder->Open() != 0) return nullptr;
  if (!FitsAFormat(ov_info(&decoder->file, -1))) return nullptr;
  decoder->comments = ov_comment(&decoder->file, -1);
  return std::unique_ptr<VorbisStream>(new VorbisStream(std::move(decoder), threads));
}

VorbisStream::VorbisStream(std::unique_ptr<Decoder> decoder, unsigned threads)
    : decoder_(std::move(decoder)), threads_(threads) {
  OggVorbis_File* const file = &decoder_->file;
  const vorbis_info* const info = ov_info(file, -1);
  samples_per_sec_ = static_cast<std::int32_t>(info->rate);
  channels_ = static_cast<std::int16_t>(info->channels);
  bool same = true;
  for (int link = 0; link < ov_streams(file); ++link) {
    vorbis_info* const format = ov_info(file, link);
    // Each packet takes at least two bytes of the file and yields at most half a long block of
    // frames.
    const std::int64_t most = file->end * (vorbis_info_blocksize(format, 1) / 4);
    const std::int64_t frames = std::min<std::int64_t>(ov_pcm_total(file, link), most);
    same &= frames <= 0 || (format->rate == info->rate && format->channels == info->channels);
    total_frames_ += frames;
    if (same) readable_frames_ += frames;
  }
  const long bits_per_sec =
      info->bitrate_nominal > 0 ? info->bitrate_nominal : ov_bitrate(file, -1);
  average_bytes_per_sec_ = static_cast<std::int32_t>(
      std::clamp<long>(bits_per_sec / 8, 0, std::numeric_limits<std::int32_t>::max()));
}

VorbisStream::~VorbisStream() = default;

std::vector<std::string_view> VorbisStream::Comments() const {
  std::vector<std::string_view> result;
  if (!decoder_->whole) return result;
  const vorbis_comment* const comments = decoder_->comments;
  for (int i = 0; i < comments->comments; ++i) {
    if (comments->user_comments[i] != nullptr) result.emplace_back(comments->user_comments[i]);
  }
  return result;
}

void VorbisStream::Prepare() {
  if (ended_) return;
  ended_ = true;
  float** planes = nullptr;
  ended_ = decoder_->Call([&](OggVorbis_File* state) {
    return ov_read_float(state, &planes, 0, nullptr);
  }) < 0;
}

bool VorbisStream::Select(std::int64_t first, std::int64_t count) {
  if (std::exchange(ended_, true)) return false;
  left_ = count;
  ended_ = first != 0 &&
           decoder_->Call([=](OggVorbis_File* state) { return ov_pcm_seek(state, first); }) != 0;
  return !ended_;
}

std::size_t VorbisStream::Read(std::span<std::int16_t> buffer) {
  const auto channels = static_cast<std::size_t>(channels_);
  const auto fit = static_cast<std::int64_t>(buffer.size() / channels);
  buffer = buffer.first(static_cast<std::size_t>(std::min(fit, left_)) * channels);
  if (ended_ || buffer.empty()) return 0;
  ended_ = true;
  std::size_t samples = workers_ != nullptr ? ReadFromWorkers(buffer) : 0;
  // The library's reader decodes if there are no workers or the workers have ended.
  if (samples == 0 && workers_ == nullptr) samples = ReadFromLibrary(buffer);
  ended_ = samples == 0;
  left_ -= static_cast<std::int64_t>(samples / channels);
  return samples;
}

// After the workers' last block, returns 0 and, if the library's reader can decode the rest, resets
// `workers_`.
std::size_t VorbisStream::ReadFromWorkers(std::span<std::int16_t> buffer) {
  if (decoder_->whole) {
    try {
      decoder_->Call([this](OggVorbis_File*) {
        workers_->Fill();
        return 0;
      });
    } catch (const std::bad_alloc&) {
      // Blocks before the failure are still delivered.
    }
  }
  const bool whole = std::exchange(decoder_->whole, false);
  const std::size_t samples = workers_->Read(buffer);
  decoder_->whole = whole;
  if (samples > 0) return samples;
  if (!whole) throw std::bad_alloc();
  if (decoder_->Call([this](OggVorbis_File*) { return workers_->HandBack(); })) workers_.reset();
  return 0;
}

// Converts the library's floats, because that is faster than the library's own 16-bit decoding.
// Both ways give the same samples in the same blocks.
std::size_t VorbisStream::ReadFromLibrary(std::span<std::int16_t> buffer) {
  constexpr std::size_t kMaxFrames = std::numeric_limits<int>::max();
  const auto channels = static_cast<std::size_t>(channels_);
  const auto room = static_cast<int>(std::min(buffer.size() / channels, kMaxFrames));
  OggVorbis_File* const file = &decoder_->file;
  float** planes = nullptr;
  int link = 0;
  const long frames = decoder_->Call(
      [&](OggVorbis_File* state) { return ov_read_float(state, &planes, room, &link); });
  const vorbis_info* const info = ov_info(file, -1);
  if (frames <= 0 || info == nullptr || info->rate != samples_per_sec_ ||
      info->channels != channels_) {
    return 0;
  }
  if (const int before = std::exchange(link_, link); before != link && before > 0) {
    // Frees the tables of the previous link. The library keeps the tables of all links, but needs
    // only those of link 0 and of the current link.
    decoder_->Call([before](OggVorbis_File* state) {
      vorbis_info_clear(ov_info(state, before));
      return 0;
    });
  }
  PackVorbisFrames(planes, channels, static_cast<std::size_t>(frames), buffer.data());
  if (threads_ > 1 && workers_link_ != link && VorbisWorkers::CanStart(*file)) {
    workers_link_ = link;
    workers_ = VorbisWorkers::Start(*file, decoder_->memory, threads_);
  }
  return static_cast<std::size_t>(frames) * channels;
}

void ApplyVorbisComment(std::string_view comment, Tags& tags) {
  const std::size_t equals = comment.find('=');
  if (equals == std::string_view::npos || equals == 0) return;
  std::string key(comment.substr(0, equals));
  // Unlike toupper, does not depend on the program's locale.
  for (char& c : key) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  const std::string_view value = comment.substr(equals + 1);
  if (key == "TITLE") tags.title = value;
  if (key == "ARTIST") tags.artist = value;
  if (key == "ALBUM") tags.album = value;
  if (key == "DATE") tags.year = value.substr(0, 4);
  if (key == "GENRE") tags.genre = value;
}

}  // namespace marlinda
