#include "import/big_endian_reader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <string_view>

#include "import/byte_reader.h"

namespace marlinda {
namespace {

constexpr int kMostChunks = 65536;
constexpr std::size_t kCommonBytes = 18;
constexpr std::size_t kAuHeaderBytes = 24;
constexpr std::uint32_t kUnknownSize = 0xFFFFFFFF;

using Bytes = std::span<const std::byte>;

std::string_view IdAt(Bytes bytes, std::size_t offset) { return AsText(bytes.subspan(offset, 4)); }

// The rate of an AIFF file is an 80-bit float: sign and exponent, then all bits of the fraction.
// 0 when it is no rate that can be.
std::int32_t RateFrom80Bits(Bytes bytes) {
  const auto exponent = static_cast<int>(ReadBig<2>(bytes, 0));
  const auto fraction = static_cast<double>(ReadBig<8>(bytes, 2));
  if (exponent < 16383 || exponent > 16383 + 31) return 0;  // below 1, beyond 2^32 or negative
  const double rate = std::round(std::ldexp(fraction, exponent - 16383 - 63));
  return rate <= std::numeric_limits<std::int32_t>::max() ? static_cast<std::int32_t>(rate) : 0;
}

bool IsPossible(const PcmFormat& format) {
  return format.channels > 0 && format.samples_per_sec > 0;
}

// The whole frames that lie between `offset` and the end of the file, at most `promised`.
std::int64_t FramesThere(ByteSource& file, std::uint64_t offset, const PcmFormat& format,
                         std::uint64_t promised) {
  const std::uint64_t bytes = file.size() - std::min(offset, file.size());
  return static_cast<std::int64_t>(std::min(promised, bytes / format.FrameBytes()));
}

// What an AIFF-C compression type says about samples that are not compressed.
struct Encoding {
  std::string_view type;
  bool is_float;
  bool big_endian;
  int bits;  // 0 where the common chunk tells
};
constexpr Encoding kEncodings[] = {
    {"NONE", false, true, 0},  {"twos", false, true, 0},  {"sowt", false, false, 0},
    {"in24", false, true, 24}, {"in32", false, true, 32}, {"fl32", true, true, 32},
    {"FL32", true, true, 32},  {"fl64", true, true, 64},  {"FL64", true, true, 64},
};

constexpr std::string_view kOneByteASample[] = {"ulaw", "ULAW", "alaw", "ALAW"};

struct AiffChunks {
  std::vector<std::byte> common;
  std::uint64_t sound_offset = 0;  // 0 where there is no sound
  std::uint64_t sound_bytes = 0;
};

AiffChunks FindChunks(ByteSource& file) {
  AiffChunks found;
  std::uint64_t position = 12;
  for (int count = 0; count < kMostChunks; ++count) {
    const std::vector<std::byte> header = file.ReadUpTo(position, 8);
    if (header.size() < 8) break;
    const std::uint64_t size = BigU32(header, 4);
    position += 8;
    if (IdAt(header, 0) == "COMM" && found.common.empty()) {
      found.common = file.ReadUpTo(position, std::min<std::uint64_t>(size, 22));
    } else if (IdAt(header, 0) == "SSND" && found.sound_offset == 0) {
      // The samples begin behind an offset, which is for alignment and nearly always 0.
      const std::vector<std::byte> sound = file.ReadUpTo(position, 8);
      if (sound.size() == 8 && size >= 8) {
        const std::uint64_t skipped = 8 + std::min<std::uint64_t>(BigU32(sound, 0), size - 8);
        found.sound_offset = position + skipped;
        found.sound_bytes = size - skipped;
      }
    }
    position += size + size % 2;
  }
  return found;
}

// AU encodings by number; the others are compressed.
std::optional<PcmFormat> AuFormat(std::uint32_t encoding) {
  switch (encoding) {
    case 2:
    case 3:
    case 4:
    case 5:
      return PcmFormat{0, 0, static_cast<std::int16_t>((encoding - 1) * 8), false};
    case 6:
      return PcmFormat{0, 0, 32, true};
    case 7:
      return PcmFormat{0, 0, 64, true};
    default:
      return std::nullopt;
  }
}

// Bytes that a sample of a compressed encoding takes; 0 where samples have no fixed size.
std::uint64_t CompressedSampleBytes(std::uint32_t encoding) {
  constexpr std::uint32_t kMuLaw = 1;
  constexpr std::uint32_t kALaw = 27;
  return encoding == kMuLaw || encoding == kALaw ? 1 : 0;
}

}  // namespace

std::optional<SoundFacts> ReadAiff(ByteSource& file) {
  const std::vector<std::byte> form = file.ReadUpTo(0, 12);
  if (form.size() < 12 || IdAt(form, 0) != "FORM") return std::nullopt;
  const bool is_aifc = IdAt(form, 8) == "AIFC";
  if (!is_aifc && IdAt(form, 8) != "AIFF") return std::nullopt;

  SoundFacts facts;
  const AiffChunks chunks = FindChunks(file);
  const Bytes common = chunks.common;
  if (common.size() < kCommonBytes + (is_aifc ? 4 : 0)) {
    facts.broken = true;
    return facts;
  }
  const std::uint32_t frames = BigU32(common, 2);
  const auto* encoding = std::ranges::find(
      kEncodings, is_aifc ? IdAt(common, kCommonBytes) : kEncodings[0].type, &Encoding::type);
  if (encoding == std::end(kEncodings)) {
    // Of other compressions the count is one of packets.
    const std::string_view type = IdAt(common, kCommonBytes);
    if (std::ranges::find(kOneByteASample, type) != std::end(kOneByteASample)) {
      facts.promised_frames = frames;
    }
    return facts;
  }

  const std::uint64_t bits =
      encoding->bits != 0 ? static_cast<std::uint64_t>(encoding->bits) : ReadBig<2>(common, 6);
  const PcmFormat format = {RateFrom80Bits(common.subspan(8, 10)),
                            static_cast<std::int16_t>(ReadBig<2>(common, 0)),
                            static_cast<std::int16_t>((bits + 7) / 8 * 8), encoding->is_float};
  const bool known_width = bits > 0 && (bits <= 32 || encoding->is_float);
  // A file without samples may leave out their chunk.
  facts.broken = !known_width || !IsPossible(format) || (chunks.sound_offset == 0 && frames > 0);
  if (facts.broken) return facts;
  const std::uint64_t whole = chunks.sound_bytes / format.FrameBytes();
  facts.pcm = PcmData{
      format, encoding->big_endian, true, chunks.sound_offset,
      FramesThere(file, chunks.sound_offset, format, std::min<std::uint64_t>(frames, whole))};
  return facts;
}

std::optional<SoundFacts> ReadAu(ByteSource& file) {
  const std::vector<std::byte> header = file.ReadUpTo(0, kAuHeaderBytes);
  if (header.size() < 4 || IdAt(header, 0) != ".snd") return std::nullopt;
  SoundFacts facts;
  facts.broken = header.size() < kAuHeaderBytes;
  if (facts.broken) return facts;

  const std::uint64_t offset = BigU32(header, 4);
  const std::uint32_t data_bytes = BigU32(header, 8);
  const std::uint32_t encoding = BigU32(header, 12);
  const std::uint32_t rate = BigU32(header, 16);
  const std::uint32_t channels = BigU32(header, 20);
  facts.broken = offset < kAuHeaderBytes || rate == 0 ||
                 rate > std::numeric_limits<std::int32_t>::max() || channels == 0 ||
                 channels > std::numeric_limits<std::int16_t>::max();
  if (facts.broken) return facts;

  const std::uint64_t there = file.size() - std::min(offset, file.size());
  const std::uint64_t promised = data_bytes == kUnknownSize ? there : data_bytes;
  auto format = AuFormat(encoding);
  if (!format) {
    const std::uint64_t frame_bytes = channels * CompressedSampleBytes(encoding);
    if (frame_bytes > 0) {
      facts.promised_frames = static_cast<std::int64_t>(std::min(promised, there) / frame_bytes);
    }
    return facts;
  }
  format->samples_per_sec = static_cast<std::int32_t>(rate);
  format->channels = static_cast<std::int16_t>(channels);
  facts.pcm = PcmData{*format, true, true, offset,
                      FramesThere(file, offset, *format, promised / format->FrameBytes())};
  return facts;
}

}  // namespace marlinda
