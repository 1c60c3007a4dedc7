#include "import/pcm_format.h"

#include <limits>

#include "core/extensible_rules.h"
#include "core/samples/sample_converter.h"
#include "import/byte_reader.h"

namespace marlinda {
namespace {

constexpr std::size_t kPlainBytes = 16;
constexpr std::size_t kExtensibleBytes = 40;
constexpr std::size_t kSubFormatOffset = 24;
constexpr unsigned kTagPcm = 1;
constexpr unsigned kTagFloat = 3;
constexpr unsigned kTagExtensible = 0xFFFE;

// The tag that an extensible format stands for; the extensible tag itself when it stands for none.
unsigned TagOf(std::span<const std::byte> body) noexcept {
  const unsigned tag = LittleU16(body, 0);
  if (tag != kTagExtensible || body.size() < kExtensibleBytes) return tag;
  const auto matches = [&](bool is_float) {
    const auto expected = SubFormatBytes(is_float);
    for (std::size_t i = 0; i < expected.size(); ++i) {
      if (std::to_integer<std::uint8_t>(body[kSubFormatOffset + i]) != expected[i]) return false;
    }
    return true;
  };
  if (matches(false)) return kTagPcm;
  return matches(true) ? kTagFloat : tag;
}

}  // namespace

std::optional<PcmFormat> ParseWaveFormat(std::span<const std::byte> body) noexcept {
  if (body.size() < kPlainBytes) return std::nullopt;
  const unsigned tag = TagOf(body);
  const unsigned channels = LittleU16(body, 2);
  const std::uint32_t rate = LittleU32(body, 4);
  const unsigned block_align = LittleU16(body, 12);
  const unsigned bits = LittleU16(body, 14);
  if (channels == 0 || channels > std::numeric_limits<std::int16_t>::max() || rate == 0 ||
      rate > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  const bool is_float = tag == kTagFloat;
  const unsigned bytes = block_align / channels;
  if (block_align != channels * bytes) return std::nullopt;
  const bool fits = is_float ? (bits == 32 || bits == 64) && bytes * 8 == bits
                             : tag == kTagPcm && bits > 0 && bits <= bytes * 8 && bytes <= 4;
  if (!fits) return std::nullopt;
  return PcmFormat{static_cast<std::int32_t>(rate), static_cast<std::int16_t>(channels),
                   static_cast<std::int16_t>(bytes * 8), is_float};
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
