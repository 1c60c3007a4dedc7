#include "core/sample_converter.h"

#include <cassert>
#include <limits>

namespace marlinda {
namespace {

// Truncation toward zero as processors do it: what does not fit, NaN included, becomes the integer
// indefinite value. In C++ such a conversion is undefined, so it is spelled out.
std::int32_t Truncate(double value) noexcept {
  constexpr double kLimit = 2147483648.0;
  if (!(value > -kLimit - 1.0 && value < kLimit)) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(value);
}

// Neither comparison holds for NaN, which passes through.
double Clamp(double value, double lowest, double highest) noexcept {
  if (value > highest) return highest;
  if (value < lowest) return lowest;
  return value;
}

std::uint8_t ToPcm8(float sample) noexcept {
  const double value = Clamp(sample * 127.0 + 128.0 + 0.5, 0.0, 255.0);
  return static_cast<std::uint8_t>(Truncate(value));
}

std::uint16_t ToPcm16(float sample) noexcept {
  const double value = Clamp(sample * 32767.0 + 32768.0 + 0.5, 0.0, 65535.0);
  return static_cast<std::uint16_t>(static_cast<std::uint32_t>(Truncate(value)) + 0x8000U);
}

// Full scale 1.0 becomes 2^31, which does not fit and wraps to the most negative code. Kept on
// purpose.
std::uint32_t ToPcm32(float sample) noexcept {
  return static_cast<std::uint32_t>(
      Truncate(Clamp(static_cast<double>(sample), -1.0, 1.0) * 2147483648.0));
}

constexpr double kFullScale32 = 1.0 / 2147483648.0;

template <int kBytes>
void StoreLittleEndian(std::uint32_t value, std::byte* out) noexcept {
  for (int i = 0; i < kBytes; ++i) out[i] = static_cast<std::byte>(value >> (8 * i));
}

template <int kBytes>
std::uint32_t LoadLittleEndian(const std::byte* in) noexcept {
  std::uint32_t value = 0;
  for (int i = 0; i < kBytes; ++i) value |= std::to_integer<std::uint32_t>(in[i]) << (8 * i);
  return value;
}

float FromPcm8(std::uint32_t code) noexcept { return static_cast<float>(code / 127.0 - 1.0); }

float FromPcm16(std::uint32_t code) noexcept {
  return static_cast<float>(static_cast<std::int16_t>(code) / 32767.0);
}

float FromPcm32(std::uint32_t code) noexcept {
  return static_cast<float>(static_cast<std::int32_t>(code) * kFullScale32);
}

template <int kBytes, class Encode>
void EncodeAll(std::span<const float> source, std::byte* out, Encode encode) noexcept {
  for (const float sample : source) {
    StoreLittleEndian<kBytes>(encode(sample), out);
    out += kBytes;
  }
}

template <int kBytes, class Decode>
void DecodeAll(const std::byte* in, std::span<float> destination, Decode decode) noexcept {
  for (float& sample : destination) {
    sample = decode(LoadLittleEndian<kBytes>(in));
    in += kBytes;
  }
}

}  // namespace

std::size_t PcmBytesPerSample(int bits) noexcept {
  if (bits > 24) return 4;
  if (bits > 16) return 3;
  return bits < 9 ? 1 : 2;
}

void ConvertFloatToPcm(std::span<const float> source, std::span<std::byte> destination,
                       int bits) noexcept {
  assert(destination.size() / PcmBytesPerSample(bits) >= source.size());
  std::byte* const out = destination.data();
  switch (PcmBytesPerSample(bits)) {
    case 1:
      return EncodeAll<1>(source, out, ToPcm8);
    case 2:
      return EncodeAll<2>(source, out, ToPcm16);
    case 3:
      return EncodeAll<3>(source, out, [](float sample) { return ToPcm32(sample) >> 8; });
    default:
      return EncodeAll<4>(source, out, ToPcm32);
  }
}

void ConvertPcmToFloat(std::span<const std::byte> source, std::span<float> destination,
                       int bits) noexcept {
  assert(source.size() / PcmBytesPerSample(bits) >= destination.size());
  const std::byte* const in = source.data();
  switch (PcmBytesPerSample(bits)) {
    case 1:
      return DecodeAll<1>(in, destination, FromPcm8);
    case 2:
      return DecodeAll<2>(in, destination, FromPcm16);
    case 3:
      return DecodeAll<3>(in, destination, [](std::uint32_t code) { return FromPcm32(code << 8); });
    default:
      return DecodeAll<4>(in, destination, FromPcm32);
  }
}

}  // namespace marlinda
