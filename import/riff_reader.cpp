#include "import/sound_readers.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "import/adpcm.h"
#include "import/byte_reader.h"

namespace marlinda {
namespace {

constexpr std::size_t kHeaderBytes = 8;
constexpr std::size_t kFormHeaderBytes = 12;
// Limit for the total size of all chunks read into memory. Bytes beyond the limit are ignored.
constexpr std::uint64_t kMaxBodyBytes = std::uint64_t{16} << 20;

constexpr std::size_t kCuePointBytes = 24;
constexpr std::size_t kRegionHeaderBytes = 20;
constexpr std::size_t kAcidBytes = 24;
constexpr std::size_t kYearCharacters = 4;

using Bytes = std::span<const std::byte>;

// A text ends at its first NUL or at the end of the chunk.
std::string TextOf(Bytes bytes) {
  const std::string_view text = AsText(bytes);
  return std::string(text.substr(0, text.find('\0')));
}

struct Chunk {
  std::string_view id;
  Bytes body;
};

// Moves the first chunk of `list` to `chunk`. Returns false at the end of the list.
bool NextChunk(Bytes& list, Chunk& chunk) {
  if (list.size() < kHeaderBytes) return false;
  const std::uint64_t size = LittleU32(list, 4);
  chunk.id = IdAt(list, 0);
  list = list.subspan(kHeaderBytes);
  chunk.body = list.first(static_cast<std::size_t>(std::min<std::uint64_t>(size, list.size())));
  list =
      list.subspan(static_cast<std::size_t>(std::min<std::uint64_t>(size + size % 2, list.size())));
  return true;
}

// Collects the points of "cue " and the names and regions of "adtl". Resolve combines them at the
// end of the file, because either chunk may come first.
class CueSheet {
 public:
  void AddPoints(Bytes body) {
    if (body.size() < 4) return;
    std::uint32_t left = LittleU32(body, 0);
    for (body = body.subspan(4); left > 0 && body.size() >= kCuePointBytes;
         body = body.subspan(kCuePointBytes), --left) {
      points_.push_back({LittleU32(body, 0), LittleU32(body, 20)});
    }
  }
  void AddAssociatedData(Bytes list) {
    Chunk chunk;
    while (NextChunk(list, chunk)) {
      if (chunk.body.size() < 4) continue;
      const std::uint32_t id = LittleU32(chunk.body, 0);
      if (chunk.id == "labl") {
        labels_.push_back({id, TextOf(chunk.body.subspan(4))});
      } else if (chunk.id == "note") {
        notes_.push_back({id, TextOf(chunk.body.subspan(4))});
      } else if (chunk.id == "ltxt" && chunk.body.size() >= kRegionHeaderBytes) {
        regions_.push_back(
            {id, LittleU32(chunk.body, 4), TextOf(chunk.body.subspan(kRegionHeaderBytes))});
      }
    }
  }
  void Resolve(SoundFileInfo& info) {
    const std::vector<Point*> by_id = SortedById();
    // If several points have the same id, finds the first of them.
    const auto find = [&](std::uint32_t id) -> Point* {
      const auto found =
          std::ranges::lower_bound(by_id, id, {}, [](const Point* point) { return point->id; });
      return found != by_id.end() && (*found)->id == id ? *found : nullptr;
    };
    for (const Text& label : labels_) {
      if (Point* point = find(label.id); point != nullptr && !point->label) {
        point->label = &label.text;
      }
    }
    for (const Text& note : notes_) {
      if (Point* point = find(note.id); point != nullptr && !point->note) point->note = &note.text;
    }
    const auto name_of = [](const Point& point) {
      if (point.label != nullptr && !point.label->empty()) return *point.label;
      return point.note != nullptr ? *point.note : std::string();
    };
    for (Region& region : regions_) {
      Point* const point = find(region.id);
      if (point == nullptr) continue;
      // Some programs add an empty region to every named point.
      if (region.length == 0 && region.name.empty() && point->label != nullptr) continue;
      point->is_region = true;
      info.markers.push_back({{point->position, point->position + region.length},
                              region.name.empty() ? name_of(*point) : std::move(region.name)});
    }
    for (const Point& point : points_) {
      if (!point.is_region) info.labels.push_back({point.position, name_of(point)});
    }
  }

 private:
  struct Point {
    std::uint32_t id;
    std::int64_t position;
    const std::string* label = nullptr;
    const std::string* note = nullptr;
    bool is_region = false;
  };
  struct Text {
    std::uint32_t id;
    std::string text;
  };
  struct Region {
    std::uint32_t id;
    std::int64_t length;
    std::string name;
  };

  std::vector<Point*> SortedById() {
    std::vector<Point*> sorted;
    sorted.reserve(points_.size());
    for (Point& point : points_) sorted.push_back(&point);
    std::ranges::stable_sort(sorted, {}, [](const Point* point) { return point->id; });
    return sorted;
  }

  std::vector<Point> points_;
  std::vector<Text> labels_;
  std::vector<Text> notes_;
  std::vector<Region> regions_;
};

void ReadInfo(Bytes list, Tags& data) {
  Chunk chunk;
  while (NextChunk(list, chunk)) {
    if (chunk.id == "INAM") data.title = TextOf(chunk.body);
    if (chunk.id == "IART") data.artist = TextOf(chunk.body);
    if (chunk.id == "IPRD") data.album = TextOf(chunk.body);
    if (chunk.id == "IGNR") data.genre = TextOf(chunk.body);
    if (chunk.id != "ICRD") continue;
    // A date begins with four characters of the year. The export writes an unknown year as
    // "-01-01", so the year ends at a "-".
    data.year = TextOf(chunk.body).substr(0, kYearCharacters);
    data.year.erase(std::min(data.year.find('-'), data.year.size()));
  }
}

AcidData ReadAcid(Bytes body) {
  return {static_cast<std::int32_t>(LittleU32(body, 0)),
          static_cast<std::int16_t>(LittleU16(body, 16)),
          static_cast<std::int16_t>(LittleU16(body, 18)),
          static_cast<std::int32_t>(LittleU32(body, 12)), LittleF32(body, 20)};
}

// True if an AVI header list describes sound and every sound format in it is safe for decoders.
bool HasSound(Bytes header_list) {
  bool has_sound = false;
  Chunk list;
  while (NextChunk(header_list, list)) {
    if (list.id != "LIST" || list.body.size() < 4 || IdAt(list.body, 0) != "strl") continue;
    Bytes stream = list.body.subspan(4);
    std::string_view kind;
    Chunk chunk;
    while (NextChunk(stream, chunk)) {
      if (chunk.id == "strh" && chunk.body.size() >= 4) kind = IdAt(chunk.body, 0);
      if (chunk.id != "strf") continue;
      if (kind == "auds" && !IsPlausibleForDecoders(chunk.body)) return false;
      // A digital video stream ("iavs") contains both pictures and sound.
      has_sound = has_sound || kind == "auds" || kind == "iavs";
    }
  }
  return has_sound;
}

// Returns the format after decoding to 16 bits, or nothing if channels or rate are impossible.
std::optional<PcmFormat> Decoded(const WaveFields& wave) {
  if (wave.channels == 0 || wave.channels > kMaxFrameBytes / 2 || wave.samples_per_sec == 0 ||
      wave.samples_per_sec > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  return PcmFormat{static_cast<std::int32_t>(wave.samples_per_sec),
                   static_cast<std::int16_t>(wave.channels), 16, false};
}

class RiffWalk {
 public:
  explicit RiffWalk(ByteSource& file) : file_(file) {}
  std::optional<SoundFileInfo> Read() {
    const std::vector<std::byte> header = file_.ReadUpTo(0, kFormHeaderBytes);
    if (header.size() < kFormHeaderBytes) return std::nullopt;
    const std::string_view id = IdAt(header, 0);
    if (id != "RIFF" && id != "RF64" && id != "BW64") return std::nullopt;
    is_wave_ = IdAt(header, 8) == "WAVE";
    is_avi_ = IdAt(header, 8) == "AVI ";
    // A program that cannot seek back to fill in the size stores 0 or the maximum.
    const std::uint64_t size = LittleU32(header, 4);
    const bool known = size >= 4 && size != kUnknownSize;
    WalkChunks(known ? std::min(file_.size(), kHeaderBytes + size) : file_.size());
    Conclude();
    return std::move(info_);
  }

 private:
  void WalkChunks(std::uint64_t riff_end) {
    for (int count = 0; count < kMaxChunks; ++count) {
      // Until the audio is found, reads chunks beyond the RIFF size too, because a RIFF size that
      // is too small must not hide the audio.
      const std::uint64_t end = data_offset_ ? riff_end : file_.size();
      if (position_ + kHeaderBytes > end) return;
      const std::vector<std::byte> header = file_.ReadUpTo(position_, kHeaderBytes);
      if (header.size() < kHeaderBytes) return;
      position_ += kHeaderBytes;
      const std::string_view id = IdAt(header, 0);
      std::uint64_t size = LittleU32(header, 4);
      if (id == "data") size = DataSize(size, riff_end);
      const std::uint64_t there = std::min(size, (id == "data" ? file_.size() : end) - position_);
      TakeChunk(id, size, there);
      position_ += there;
      if (there == size && size % 2 != 0) ++position_;
    }
  }
  // Returns the size of the "data" chunk at `position_`. `size` is the size in the chunk's header.
  std::uint64_t DataSize(std::uint64_t size, std::uint64_t riff_end) {
    if (size == kUnknownSize) {
      const std::uint64_t end = riff_end > position_ ? riff_end : file_.size();
      return wide_data_size_.value_or(end - position_);
    }
    if (size != 0) return size;
    // The chunk is empty, or the program that wrote it stopped before it filled in the size. In the
    // second case, audio follows instead of a chunk.
    const std::vector<std::byte> next = file_.ReadUpTo(position_, kHeaderBytes);
    const std::uint64_t rest = file_.size() - position_;
    const bool is_chunk =
        next.size() == kHeaderBytes && LittleU32(next, 4) <= rest - kHeaderBytes &&
        std::ranges::all_of(IdAt(next, 0), [](char c) { return c >= 32 && c < 127; });
    return is_chunk ? 0 : rest;
  }
  void TakeChunk(std::string_view id, std::uint64_t size, std::uint64_t there) {
    if (id == "LIST") {
      TakeList(there);
    } else if (!is_wave_) {
      return;
    } else if (id == "fmt " && format_.empty()) {
      format_ = Body(there);
    } else if (id == "data" && !data_offset_) {
      data_offset_ = position_;
      data_bytes_ = there;
    } else if (id == "ds64" && size >= 24) {
      const auto body = Body(there);
      if (body.size() >= 24) wide_data_size_ = ReadLittle<8>(body, 8);
    } else if (id == "fact") {
      const auto body = Body(there);
      if (body.size() >= 4) frames_ = LittleU32(body, 0);
    } else if (id == "cue ") {
      cues_.AddPoints(Body(there));
    } else if (id == "acid") {
      const auto body = Body(there);
      if (body.size() >= kAcidBytes) info_.acid = ReadAcid(body);
    }
  }
  // Reads "INFO", "adtl" and "hdrl". Skips other lists, such as the pictures and sound of AVI.
  void TakeList(std::uint64_t there) {
    const std::vector<std::byte> start =
        file_.ReadUpTo(position_, std::min<std::uint64_t>(there, 4));
    const std::string_view type = AsText(start);
    if (type != "INFO" && type != "adtl" && type != "hdrl") return;
    const std::vector<std::byte> body = Body(there);
    if (body.size() < 4) return;
    const Bytes list = Bytes(body).subspan(4);
    if (type == "INFO") ReadInfo(list, info_.tags);
    if (type == "adtl" && is_wave_) cues_.AddAssociatedData(list);
    if (type == "hdrl" && is_avi_) has_sound_ = HasSound(list);
  }
  void Conclude() {
    if (is_wave_) cues_.Resolve(info_);
    info_.refused = is_wave_ ? !data_offset_ : !has_sound_;
    if (info_.refused || !is_wave_) return;
    const WaveFields wave = ReadWaveFields(format_);
    if (wave.tag == WaveFields::kMpeg || wave.tag == WaveFields::kMpegLayer3) {
      info_.mpeg = ByteRange{*data_offset_, data_bytes_};
      return;
    }
    info_.pcm = Samples();
    if (info_.pcm) return;
    // Data of less than one block holds no sound, and some decoders hang on it.
    info_.refused = wave.tag == WaveFields::kPcm || wave.tag == WaveFields::kFloat ||
                    !IsPlausibleForDecoders(format_) || data_bytes_ < wave.block_align;
  }
  // Returns nothing if the samples need a decoder of the system or the format contradicts itself.
  std::optional<PcmData> Samples() const {
    const WaveFields wave = ReadWaveFields(format_);
    if (wave.tag == WaveFields::kImaAdpcm) return AdpcmSamples(wave, Coding::kImaAdpcm);
    if (wave.tag == WaveFields::kMsAdpcm) return AdpcmSamples(wave, Coding::kMsAdpcm);
    PcmData pcm = {.offset = *data_offset_};
    if (wave.tag == WaveFields::kMuLaw || wave.tag == WaveFields::kALaw) {
      const auto format = Decoded(wave);
      if (!format) return std::nullopt;
      pcm.format = *format;
      pcm.coding = wave.tag == WaveFields::kMuLaw ? Coding::kMuLaw : Coding::kALaw;
    } else {
      const auto format = ParseWaveFormat(format_);
      if (!format) return std::nullopt;
      pcm.format = *format;
    }
    pcm.frames = static_cast<std::int64_t>(data_bytes_ / pcm.FrameBytes());
    return pcm;
  }
  std::optional<PcmData> AdpcmSamples(const WaveFields& wave, Coding coding) const {
    const auto format = Decoded(wave);
    if (!format || wave.bits != 4) return std::nullopt;
    PcmData pcm = {.format = *format, .coding = coding, .offset = *data_offset_};
    pcm.block_bytes = wave.block_align;
    pcm.block_frames = AdpcmFrames(coding, wave.channels, wave.block_align);
    if (pcm.block_frames == 0) return std::nullopt;
    const auto rest = static_cast<std::size_t>(data_bytes_ % pcm.block_bytes);
    const std::uint64_t frames =
        data_bytes_ / pcm.block_bytes * pcm.block_frames + AdpcmFrames(coding, wave.channels, rest);
    // Only the last block may hold padding. An announced number of frames that does not end in the
    // last block is ignored.
    const bool ends_in_last = frames_ && *frames_ < frames && frames - *frames_ < pcm.block_frames;
    pcm.frames = static_cast<std::int64_t>(ends_in_last ? *frames_ : frames);
    return pcm;
  }
  std::vector<std::byte> Body(std::uint64_t there) {
    auto body = file_.ReadUpTo(position_, std::min(there, bytes_left_));
    bytes_left_ -= body.size();
    return body;
  }

  ByteSource& file_;
  SoundFileInfo info_;
  CueSheet cues_;
  std::uint64_t position_ = kFormHeaderBytes;  // position of the chunk's header, then of its body
  std::uint64_t bytes_left_ = kMaxBodyBytes;
  bool is_wave_ = false;
  bool is_avi_ = false;
  bool has_sound_ = false;  // true only for AVI files with sound
  std::vector<std::byte> format_;
  std::optional<std::uint32_t> frames_;  // announced in the "fact" chunk
  std::optional<std::uint64_t> wide_data_size_;
  std::optional<std::uint64_t> data_offset_;
  std::uint64_t data_bytes_ = 0;
};

}  // namespace

std::optional<SoundFileInfo> ReadRiff(ByteSource& file) { return RiffWalk(file).Read(); }

}  // namespace marlinda
