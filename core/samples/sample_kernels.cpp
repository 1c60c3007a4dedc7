// The scalar form of the sample converters, one sample at a time.
#include <cstddef>
#include <cstdint>
#include <limits>

#include "core/samples/sample_kernels.h"

namespace marlinda {
namespace {

// Truncates toward zero. NaN and values that do not fit, whose conversion C++ leaves undefined,
// become the most negative integer, as with the instructions that the vector forms use.
std::int32_t Truncate(double value) noexcept {
  constexpr double kLimit = 2147483648.0;
  if (!(value > -kLimit - 1.0 && value < kLimit)) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(value);
}

// Returns NaN for NaN, because both comparisons are false.
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

// +1.0 becomes 2^31. This does not fit, so Truncate returns the most negative code.
std::uint32_t ToPcm32(float sample) noexcept {
  return static_cast<std::uint32_t>(
      Truncate(Clamp(static_cast<double>(sample), -1.0, 1.0) * 2147483648.0));
}

std::uint32_t ToPcm24(float sample) noexcept { return ToPcm32(sample) >> 8; }

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

float FromPcm24(std::uint32_t code) noexcept { return FromPcm32(code << 8); }

template <int kBytes, auto kEncode>
void EncodeAll(const float* source, std::byte* out, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    StoreLittleEndian<kBytes>(kEncode(source[i]), out + i * kBytes);
  }
}

template <int kBytes, auto kDecode>
void DecodeAll(const std::byte* in, float* destination, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    destination[i] = kDecode(LoadLittleEndian<kBytes>(in + i * kBytes));
  }
}

}  // namespace

const SampleKernels kScalarSampleKernels = {
    {EncodeAll<1, ToPcm8>, EncodeAll<2, ToPcm16>, EncodeAll<3, ToPcm24>, EncodeAll<4, ToPcm32>},
    {DecodeAll<1, FromPcm8>, DecodeAll<2, FromPcm16>, DecodeAll<3, FromPcm24>,
     DecodeAll<4, FromPcm32>}};

}  // namespace marlinda
