#include "import/sound_examiner.h"

#include <algorithm>
#include <string_view>

#include "core/samples/sample_converter.h"
#include "import/adpcm.h"
#include "import/byte_reader.h"
#include "import/mpeg_stream.h"
#include "import/sound_readers.h"

namespace marlinda {
namespace {

std::int16_t ExpandMuLaw(std::byte byte) {
  const int code = ~std::to_integer<int>(byte) & 0xFF;
  const int magnitude = (((code & 0x0F) << 3) + 0x84) << ((code & 0x70) >> 4);
  return static_cast<std::int16_t>((code & 0x80) != 0 ? 0x84 - magnitude : magnitude - 0x84);
}

std::int16_t ExpandALaw(std::byte byte) {
  const int code = std::to_integer<int>(byte) ^ 0x55;
  const int exponent = (code & 0x70) >> 4;
  int magnitude = ((code & 0x0F) << 4) + 8;
  if (exponent > 0) magnitude = (magnitude + 0x100) << (exponent - 1);
  return static_cast<std::int16_t>((code & 0x80) != 0 ? magnitude : -magnitude);
}

// Expands mu-law or A-law codes to little-endian 16-bit samples.
void Expand(Coding coding, std::vector<std::byte>& bytes) {
  const std::vector<std::byte> codes = bytes;
  bytes.clear();
  for (const std::byte code : codes) {
    const auto value =
        static_cast<unsigned>(coding == Coding::kMuLaw ? ExpandMuLaw(code) : ExpandALaw(code));
    bytes.push_back(static_cast<std::byte>(value & 0xFF));
    bytes.push_back(static_cast<std::byte>(value >> 8 & 0xFF));
  }
}

// Converts samples to the form in WAV files: little-endian, and 8-bit samples unsigned around 128.
void MakeWaveBytes(const PcmData& pcm, std::span<std::byte> bytes) {
  const auto width = static_cast<std::size_t>(pcm.format.bits / 8);
  if (width == 1 && pcm.signed_bytes) {
    for (std::byte& byte : bytes) byte ^= std::byte{0x80};
  }
  if (width == 1 || !pcm.big_endian) return;
  for (; bytes.size() >= width; bytes = bytes.subspan(width)) {
    std::ranges::reverse(bytes.first(width));
  }
}

// True if a Windows Media file describes sound and every sound format is safe for decoders. The
// file's header has one object per stream, with the stream's kind and wave format.
bool HasWindowsMediaSound(ByteSource& file) {
  constexpr std::string_view kStreamProperties{
      "\x91\x07\xDC\xB7\xB7\xA9\xCF\x11\x8E\xE6\x00\xC0\x0C\x20\x53\x65", 16};
  constexpr std::string_view kAudio{
      "\x40\x9E\x69\xF8\x4D\x5B\xCF\x11\xA8\xFD\x00\x80\x5F\x5C\x44\x2B", 16};
  constexpr std::uint64_t kFileHeaderBytes = 30;
  constexpr std::uint64_t kObjectHeaderBytes = 24;
  constexpr std::size_t kFormatOffset = 78;
  constexpr std::uint64_t kFormatBytes = 40;
  constexpr int kMaxObjects = 1000;
  bool has_sound = false;
  std::uint64_t position = kFileHeaderBytes;
  for (int count = 0; count < kMaxObjects; ++count) {
    const auto object = file.ReadUpTo(position, kFormatOffset + kFormatBytes);
    if (object.size() < kObjectHeaderBytes) break;
    const std::uint64_t size = ReadLittle<8>(object, 16);
    const std::string_view text = AsText(object);
    if (text.starts_with(kStreamProperties) && object.size() > kFormatOffset &&
        text.substr(kObjectHeaderBytes).starts_with(kAudio)) {
      if (!IsPlausibleForDecoders(std::span(object).subspan(kFormatOffset))) return false;
      has_sound = true;
    }
    if (size < kObjectHeaderBytes || size > file.size() - position) break;
    position += size;
  }
  return has_sound;
}

// Decodes the ADPCM blocks that hold the frames from `first` on.
std::size_t ReadBlocks(ByteSource& file, const PcmData& pcm, std::int64_t first,
                       std::span<float> samples, std::vector<std::byte>& scratch) {
  const auto channels = static_cast<std::size_t>(pcm.format.channels);
  const std::size_t wanted = samples.size() / channels;
  std::vector<std::int16_t> decoded;
  std::size_t done = 0;
  while (done < wanted) {
    const std::uint64_t frame = static_cast<std::uint64_t>(first) + done;
    const std::uint64_t block = frame / pcm.block_frames;
    const auto skipped = static_cast<std::size_t>(frame % pcm.block_frames);
    scratch.resize(pcm.block_bytes);
    scratch.resize(file.Read(pcm.offset + block * pcm.block_bytes, scratch));
    const std::size_t there = AdpcmFrames(pcm.coding, channels, scratch.size());
    if (there <= skipped) break;
    const std::size_t count = std::min(there - skipped, wanted - done);
    decoded.resize((skipped + count) * channels);
    DecodeAdpcm(pcm.coding, channels, scratch, decoded);
    ConvertPcmToFloat(std::as_bytes(std::span(decoded).subspan(skipped * channels)),
                      samples.subspan(done * channels, count * channels), pcm.format.bits);
    done += count;
  }
  return done * channels;
}

}  // namespace

SoundFileInfo ExamineSound(ByteSource& file) {
  constexpr std::string_view kWindowsMedia{
      "\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16};
  constexpr std::string_view kProgramStream{"\x00\x00\x01\xBA", 4};
  SoundFileInfo info;
  if (auto riff = ReadRiff(file)) {
    info = *std::move(riff);
  } else if (auto aiff = ReadAiff(file)) {
    return *std::move(aiff);
  } else if (auto au = ReadAu(file)) {
    return *std::move(au);
  } else {
    const std::vector<std::byte> start = file.ReadUpTo(0, kWindowsMedia.size());
    if (AsText(start) == kWindowsMedia) {
      info.refused = !HasWindowsMediaSound(file);
    } else if (!AsText(start).starts_with(kProgramStream)) {
      info.mpeg = ByteRange{0, file.size()};
    }
    if (auto tags = info.refused ? std::nullopt : ReadTags(file)) {
      info.tags = *std::move(tags);
      info.utf8 = true;
    }
  }
  if (info.mpeg && MpegStream::Open(file, *info.mpeg) == nullptr) {
    info.mpeg.reset();
    info.refused = true;
  }
  return info;
}

std::size_t ReadSamples(ByteSource& file, const PcmData& pcm, std::int64_t first,
                        std::span<float> samples, std::vector<std::byte>& scratch) {
  if (pcm.IsInBlocks()) return ReadBlocks(file, pcm, first, samples, scratch);
  scratch.resize(samples.size() * pcm.SampleBytes());
  const std::size_t frame_bytes = pcm.FrameBytes();
  const std::uint64_t offset = pcm.offset + static_cast<std::uint64_t>(first) * frame_bytes;
  const std::size_t bytes = file.Read(offset, scratch);
  scratch.resize(bytes - bytes % frame_bytes);
  const std::size_t count = scratch.size() / pcm.SampleBytes();
  if (pcm.coding == Coding::kLinear) {
    MakeWaveBytes(pcm, scratch);
  } else {
    Expand(pcm.coding, scratch);
  }
  DecodeSamples(pcm.format, scratch, samples.first(count));
  return count;
}

}  // namespace marlinda
