// Holds the converters to their definition: each sample of a block of any length, at any place and
// of any width, is what the rule for one sample gives, and nothing beside the block is touched.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "core/samples/sample_converter.h"

namespace {

constexpr std::byte kGuard{0xA5};

void Require(bool holds) {
  if (!holds) std::abort();
}

std::size_t WidthOf(int bits) {
  if (bits > 24) return 4;
  if (bits > 16) return 3;
  return bits < 9 ? 1 : 2;
}

// The code of one sample as the unsigned number that its bytes form.
std::uint32_t Encode(float sample, std::size_t width) {
  const double s = sample;
  if (width <= 2) {
    const double half = width == 1 ? 128.0 : 32768.0;
    const double top = 2 * half - 1;
    const double value = s * (half - 1) + half + 0.5;
    // The comparison is false for what is no number.
    const double code = value > 0 ? std::min(value, top) : 0;
    const auto whole = static_cast<std::uint32_t>(code);
    return width == 1 ? whole : (whole + 0x8000) & 0xFFFF;
  }
  std::uint32_t code = 0x80000000;
  if (s > -1.0 && s < 1.0) {
    code = static_cast<std::uint32_t>(static_cast<std::int32_t>(s * 2147483648.0));
  }
  return width == 4 ? code : code >> 8;
}

float Decode(std::uint32_t code, std::size_t width) {
  switch (width) {
    case 1:
      return static_cast<float>(code / 127.0 - 1.0);
    case 2:
      return static_cast<float>(static_cast<std::int16_t>(code) / 32767.0);
    case 3:
      code <<= 8;
      break;
    default:
      break;
  }
  return static_cast<float>(static_cast<std::int32_t>(code) * (1.0 / 2147483648.0));
}

std::uint32_t CodeAt(const std::byte* bytes, std::size_t width) {
  std::uint32_t code = 0;
  for (std::size_t i = 0; i < width; ++i) {
    code |= std::to_integer<std::uint32_t>(bytes[i]) << (8 * i);
  }
  return code;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const int bits = static_cast<std::int8_t>(data[0]);
  const std::size_t shift = data[1] % 8;
  const std::size_t width = WidthOf(bits);
  Require(marlinda::PcmBytesPerSample(bits) == width);
  data += 2;
  size -= 2;

  // As floats, at a place that no vector instruction would choose.
  const std::size_t floats = size / sizeof(float);
  std::vector<float> source(shift + floats);
  if (floats > 0) std::memcpy(source.data() + shift, data, floats * sizeof(float));
  std::vector<std::byte> pcm(shift + floats * width + 64, kGuard);
  marlinda::ConvertFloatToPcm(std::span(source).subspan(shift),
                              std::span(pcm).subspan(shift, floats * width), bits);
  for (std::size_t i = 0; i < floats; ++i) {
    Require(CodeAt(&pcm[shift + i * width], width) == Encode(source[shift + i], width));
  }
  const auto untouched = [](std::byte value) { return value == kGuard; };
  Require(std::all_of(pcm.begin(), pcm.begin() + static_cast<std::ptrdiff_t>(shift), untouched));
  Require(std::all_of(pcm.end() - 64, pcm.end(), untouched));

  // As codes.
  const std::size_t codes = size / width;
  std::vector<std::byte> bytes(shift + codes * width);
  if (codes > 0) std::memcpy(bytes.data() + shift, data, codes * width);
  constexpr float kMark = 77.0F;
  std::vector<float> samples(shift + codes + 16, kMark);
  marlinda::ConvertPcmToFloat(std::span(bytes).subspan(shift),
                              std::span(samples).subspan(shift, codes), bits);
  for (std::size_t i = 0; i < codes; ++i) {
    Require(samples[shift + i] == Decode(CodeAt(&bytes[shift + i * width], width), width));
  }
  for (std::size_t i = 0; i < shift; ++i) Require(samples[i] == kMark);
  for (std::size_t i = shift + codes; i < samples.size(); ++i) Require(samples[i] == kMark);
  return 0;
}
