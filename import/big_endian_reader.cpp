#include "import/sound_readers.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <string_view>

#include "import/byte_reader.h"

namespace marlinda {
namespace {

constexpr std::size_t kCommonBytes = 18;
constexpr std::size_t kAuHeaderBytes = 24;

using Bytes = std::span<const std::byte>;

// Converts the rate of an AIFF file from an 80-bit float: 16 bits of sign and exponent, then 64
// bits of fraction. Returns 0 for a rate below 1 or above the range of the result.
std::int32_t RateFrom80Bits(Bytes bytes) {
  const auto exponent = static_cast<int>(ReadBig<2>(bytes, 0));
  const auto fraction = static_cast<double>(ReadBig<8>(bytes, 2));
  if (exponent < 16383 || exponent > 16383 + 31) return 0;  // negative, below 1 or at least 2^32
  const double rate = std::round(std::ldexp(fraction, exponent - 16383 - 63));
  return rate <= std::numeric_limits<std::int32_t>::max() ? static_cast<std::int32_t>(rate) : 0;
}

bool IsPossible(const PcmFormat& format) {
  return format.channels > 0 && format.samples_per_sec > 0 && format.FrameBytes() <= kMaxFrameBytes;
}

// Reduces `pcm.frames` to the whole frames that lie within both the `promised` bytes and the file.
PcmData CutToFile(ByteSource& file, PcmData pcm, std::uint64_t promised) {
  const std::uint64_t there = file.size() - std::min(pcm.offset, file.size());
  const std::uint64_t whole = std::min(promised, there) / pcm.FrameBytes();
  pcm.frames = static_cast<std::int64_t>(std::min(static_cast<std::uint64_t>(pcm.frames), whole));
  return pcm;
}

// An AIFF-C compression type that ReadSamples can read.
struct Encoding {
  std::string_view type;
  bool is_float;
  bool big_endian;
  int bits;  // 0 if the common chunk gives the width
  Coding coding = Coding::kLinear;
};
constexpr Encoding kEncodings[] = {
    {"NONE", false, true, 0},
    {"twos", false, true, 0},
    {"sowt", false, false, 0},
    {"in24", false, true, 24},
    {"in32", false, true, 32},
    {"fl32", true, true, 32},
    {"FL32", true, true, 32},
    {"fl64", true, true, 64},
    {"FL64", true, true, 64},
    {"ulaw", false, false, 16, Coding::kMuLaw},
    {"ULAW", false, false, 16, Coding::kMuLaw},
    {"alaw", false, false, 16, Coding::kALaw},
    {"ALAW", false, false, 16, Coding::kALaw},
};

struct AiffChunks {
  std::vector<std::byte> common;
  std::uint64_t sound_offset = 0;  // 0 if the file has no sound chunk
  std::uint64_t sound_bytes = 0;
};

AiffChunks FindChunks(ByteSource& file) {
  AiffChunks found;
  std::uint64_t position = 12;
  for (int count = 0; count < kMaxChunks; ++count) {
    const std::vector<std::byte> header = file.ReadUpTo(position, 8);
    if (header.size() < 8) break;
    const std::uint64_t size = BigU32(header, 4);
    position += 8;
    if (IdAt(header, 0) == "COMM" && found.common.empty()) {
      found.common = file.ReadUpTo(position, std::min<std::uint64_t>(size, 22));
    } else if (IdAt(header, 0) == "SSND" && found.sound_offset == 0) {
      // The chunk's offset field aligns the samples and is usually 0.
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

// An AU encoding that ReadSamples can read.
struct AuEncoding {
  std::uint32_t number;
  std::int16_t bits;
  bool is_float = false;
  Coding coding = Coding::kLinear;
};
constexpr AuEncoding kAuEncodings[] = {
    {1, 16, false, Coding::kMuLaw}, {2, 8}, {3, 16}, {4, 24}, {5, 32}, {6, 32, true}, {7, 64, true},
    {27, 16, false, Coding::kALaw},
};

}  // namespace

std::optional<SoundFileInfo> ReadAiff(ByteSource& file) {
  const std::vector<std::byte> form = file.ReadUpTo(0, 12);
  if (form.size() < 12 || IdAt(form, 0) != "FORM") return std::nullopt;
  const bool is_aifc = IdAt(form, 8) == "AIFC";
  if (!is_aifc && IdAt(form, 8) != "AIFF") return std::nullopt;

  SoundFileInfo info;
  const AiffChunks chunks = FindChunks(file);
  const Bytes common = chunks.common;
  info.refused = common.size() < kCommonBytes + (is_aifc ? 4 : 0);
  if (info.refused) return info;
  const std::uint32_t frames = BigU32(common, 2);
  const auto* encoding = std::ranges::find(
      kEncodings, is_aifc ? IdAt(common, kCommonBytes) : kEncodings[0].type, &Encoding::type);
  info.refused = encoding == std::end(kEncodings);
  if (info.refused) return info;

  const std::uint64_t bits =
      encoding->bits != 0 ? static_cast<std::uint64_t>(encoding->bits) : ReadBig<2>(common, 6);
  const PcmFormat format = {RateFrom80Bits(common.subspan(8, 10)),
                            static_cast<std::int16_t>(ReadBig<2>(common, 0)),
                            static_cast<std::int16_t>((bits + 7) / 8 * 8), encoding->is_float};
  const bool known_width = bits > 0 && (bits <= 32 || encoding->is_float);
  // A file without samples may lack the sound chunk.
  info.refused = !known_width || !IsPossible(format) || (chunks.sound_offset == 0 && frames > 0);
  if (info.refused) return info;
  info.pcm = CutToFile(file,
                       {.format = format,
                        .coding = encoding->coding,
                        .big_endian = encoding->big_endian,
                        .signed_bytes = true,
                        .offset = chunks.sound_offset,
                        .frames = frames},
                       chunks.sound_bytes);
  return info;
}

std::optional<SoundFileInfo> ReadAu(ByteSource& file) {
  const std::vector<std::byte> header = file.ReadUpTo(0, kAuHeaderBytes);
  if (header.size() < 4 || IdAt(header, 0) != ".snd") return std::nullopt;
  SoundFileInfo info;
  info.refused = header.size() < kAuHeaderBytes;
  if (info.refused) return info;

  const std::uint64_t offset = BigU32(header, 4);
  const std::uint32_t data_bytes = BigU32(header, 8);
  const std::uint32_t encoding = BigU32(header, 12);
  const std::uint32_t rate = BigU32(header, 16);
  const std::uint32_t channels = BigU32(header, 20);
  const auto* const known = std::ranges::find(kAuEncodings, encoding, &AuEncoding::number);
  info.refused = offset < kAuHeaderBytes || rate > std::numeric_limits<std::int32_t>::max() ||
                 channels > std::numeric_limits<std::int16_t>::max() ||
                 known == std::end(kAuEncodings);
  if (info.refused) return info;
  const PcmFormat format = {static_cast<std::int32_t>(rate), static_cast<std::int16_t>(channels),
                            known->bits, known->is_float};
  info.refused = !IsPossible(format);
  if (info.refused) return info;
  info.pcm = CutToFile(file,
                       {.format = format,
                        .coding = known->coding,
                        .big_endian = true,
                        .signed_bytes = true,
                        .offset = offset,
                        .frames = std::numeric_limits<std::int64_t>::max()},
                       data_bytes == kUnknownSize ? file.size() : data_bytes);
  return info;
}

}  // namespace marlinda
