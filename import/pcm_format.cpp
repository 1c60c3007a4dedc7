#include "import/pcm_format.h"

#include <algorithm>
#include <limits>

#include "core/extensible_rules.h"
#include "core/samples/sample_converter.h"
#include "import/byte_reader.h"

namespace marlinda {
namespace {

constexpr std::size_t kPlainBytes = 16;
constexpr std::size_t kExtensibleBytes = 40;
constexpr std::size_t kSubFormatOffset = 24;
constexpr unsigned kTagExtensible = 0xFFFE;
// No compressed format has a higher rate.
constexpr std::uint32_t kMaxCompressedRate = 384000;

// Returns the maximum number of channels in a compressed format.
unsigned MaxChannels(unsigned tag) noexcept {
  constexpr unsigned kGsm = 0x31;
  constexpr unsigned kWindowsMediaPro = 0x162;
  constexpr unsigned kWindowsMediaLossless = 0x163;
  if (tag == kGsm) return 1;
  return tag == kWindowsMediaPro || tag == kWindowsMediaLossless ? 8 : 2;
}

}  // namespace

WaveFields ReadWaveFields(std::span<const std::byte> body) noexcept {
  if (body.size() < kPlainBytes) return {};
  WaveFields fields = {LittleU16(body, 0), LittleU16(body, 2), LittleU32(body, 4),
                       LittleU16(body, 12), LittleU16(body, 14)};
  if (fields.tag != kTagExtensible || body.size() < kExtensibleBytes) return fields;
  // A sub-format identifier that stands for a format tag has this tag in its first two bytes.
  const auto pcm = SubFormatBytes(false);
  const auto sub_format = body.subspan(kSubFormatOffset, pcm.size());
  const bool has_tag = std::equal(pcm.begin() + 2, pcm.end(), sub_format.begin() + 2,
                                  [](std::uint8_t a, std::byte b) { return std::byte{a} == b; });
  if (has_tag) fields.tag = LittleU16(sub_format, 0);
  return fields;
}

std::optional<PcmFormat> ParseWaveFormat(std::span<const std::byte> body) noexcept {
  const WaveFields wave = ReadWaveFields(body);
  if (wave.channels == 0 || wave.channels > std::numeric_limits<std::int16_t>::max() ||
      wave.samples_per_sec == 0 ||
      wave.samples_per_sec > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  const bool is_float = wave.tag == WaveFields::kFloat;
  // Some programs write a block align of 0.
  const unsigned bytes =
      wave.block_align != 0 ? wave.block_align / wave.channels : (wave.bits + 7U) / 8;
  if (wave.block_align % wave.channels != 0 ||
      std::size_t{bytes} * wave.channels > kMaxFrameBytes) {
    return std::nullopt;
  }
  const bool fits = is_float ? (wave.bits == 32 || wave.bits == 64) && bytes * 8 == wave.bits
                             : wave.tag == WaveFields::kPcm && wave.bits > 0 &&
                                   wave.bits <= bytes * 8 && bytes <= 4;
  if (!fits) return std::nullopt;
  return PcmFormat{static_cast<std::int32_t>(wave.samples_per_sec),
                   static_cast<std::int16_t>(wave.channels), static_cast<std::int16_t>(bytes * 8),
                   is_float};
}

bool IsPlausibleForDecoders(std::span<const std::byte> body) noexcept {
  const WaveFields wave = ReadWaveFields(body);
  if (wave.tag == WaveFields::kPcm || wave.tag == WaveFields::kFloat) {
    return ParseWaveFormat(body).has_value();
  }
  return wave.channels > 0 && wave.channels <= MaxChannels(wave.tag) && wave.samples_per_sec > 0 &&
         wave.samples_per_sec <= kMaxCompressedRate && wave.block_align > 0 && wave.bits <= 32;
}

void DecodeSamples(const PcmFormat& format, std::span<const std::byte> bytes,
                   std::span<float> samples) noexcept {
  if (!format.is_float) {
    ConvertPcmToFloat(bytes, samples, format.bits);
  } else if (format.bits == 32) {
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = LittleF32(bytes, 4 * i);
  } else {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      samples[i] = static_cast<float>(LittleF64(bytes, 8 * i));
    }
  }
}

}  // namespace marlinda
