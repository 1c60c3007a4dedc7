#include "import/sound_examiner.h"

#include <algorithm>

#include "import/big_endian_reader.h"
#include "import/riff_reader.h"
#include "import/tag_reader.h"

namespace marlinda {
namespace {

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

}  // namespace

SoundFacts ExamineSound(ByteSource& file) {
  if (auto facts = ReadRiff(file)) return *std::move(facts);
  if (auto facts = ReadAiff(file)) return *std::move(facts);
  if (auto facts = ReadAu(file)) return *std::move(facts);
  SoundFacts facts;
  if (auto tags = ReadTags(file)) {
    facts.meta_data = *std::move(tags);
    facts.utf8 = true;
  }
  return facts;
}

std::size_t ReadSamples(ByteSource& file, const PcmData& pcm, std::int64_t first,
                        std::span<float> samples, std::vector<std::byte>& scratch) {
  const auto width = static_cast<std::size_t>(pcm.format.bits / 8);
  const std::size_t frame_bytes = pcm.format.FrameBytes();
  scratch.resize(samples.size() * width);
  const std::uint64_t offset = pcm.offset + static_cast<std::uint64_t>(first) * frame_bytes;
  std::size_t bytes = file.Read(offset, scratch);
  bytes -= bytes % frame_bytes;
  const auto there = std::span(scratch).first(bytes);
  MakeWaveBytes(pcm, there);
  DecodeSamples(pcm.format, there, samples.first(bytes / width));
  return bytes / width;
}

}  // namespace marlinda
