#include "import/sound_examiner.h"

#include <algorithm>

#include "import/big_endian_reader.h"
#include "import/byte_reader.h"
#include "import/riff_reader.h"
#include "import/tag_reader.h"

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

// Turns codes of a logarithmic scale into 16-bit samples of a wave.
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

// Turns the bytes into those of a wave: little-endian, 8 bits around 128.
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

// The first packet of such a file stands behind one page header with one segment.
bool IsOggVorbis(ByteSource& file) {
  const std::vector<std::byte> start = file.ReadUpTo(0, 35);
  return AsText(start).starts_with("OggS") && AsText(start).ends_with("\x01vorbis");
}

}  // namespace

SoundFileInfo ExamineSound(ByteSource& file) {
  if (auto info = ReadRiff(file)) return *std::move(info);
  if (auto info = ReadAiff(file)) return *std::move(info);
  if (auto info = ReadAu(file)) return *std::move(info);
  SoundFileInfo info;
  // Ogg Vorbis has a filter of its own with a higher merit. To ask the filters of the system as
  // well would make everyone who opens such a file wait for them.
  info.refused = file.size() == 0 || IsOggVorbis(file);
  if (info.refused) return info;
  if (auto tags = ReadTags(file)) {
    info.tags = *std::move(tags);
    info.utf8 = true;
  }
  return info;
}

std::size_t ReadSamples(ByteSource& file, const PcmData& pcm, std::int64_t first,
                        std::span<float> samples, std::vector<std::byte>& scratch) {
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
