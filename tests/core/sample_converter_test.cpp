// The converters against exact arithmetic and literal codes, at every level of vector instructions
// that this processor has.
#include "core/samples/sample_converter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <span>
#include <vector>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

using Codes = std::vector<std::int64_t>;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr int kWidths[] = {8, 16, 24, 32};

// Codes as numbers: unsigned for 8 bits, signed otherwise.
Codes Encode(std::span<const float> samples, int bits) {
  const auto width = static_cast<std::size_t>(bits / 8);
  std::vector<std::byte> bytes(samples.size() * width);
  ConvertFloatToPcm(samples, bytes, bits);
  Codes codes(samples.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    codes[i / width] |= std::to_integer<std::int64_t>(bytes[i]) << (8 * (i % width));
  }
  const std::int64_t half = std::int64_t{1} << (bits - 1);
  for (std::int64_t& code : codes) code -= bits > 8 && code >= half ? 2 * half : 0;
  return codes;
}

std::vector<float> Decode(const Codes& codes, int bits) {
  std::vector<std::byte> bytes;
  for (const std::int64_t code : codes) {
    for (int i = 0; i < bits; i += 8) bytes.push_back(static_cast<std::byte>(code >> i));
  }
  std::vector<float> samples(codes.size(), -99.0F);
  ConvertPcmToFloat(bytes, samples, bits);
  return samples;
}

// A finite float is integer * 2^exponent. The product with the scale has at most 39 bits, so beyond
// 40 places behind the point nothing is left of it; large values only have to stay out of range.
std::int64_t ExactCode(float value, int bits) {
  if (std::isnan(value)) return bits == 8 ? 0 : -(std::int64_t{1} << (bits - 1));
  if (std::isinf(value)) value = std::copysign(std::numeric_limits<float>::max(), value);
  int exponent = 0;
  const auto integer = static_cast<std::int64_t>(std::ldexp(std::frexp(value, &exponent), 24));
  const int places = 24 - exponent;
  if (bits <= 16) {
    // floor(value * scale + 1/2), limited.
    const std::int64_t scale = bits == 8 ? 127 : 32767;
    const std::int64_t product = integer * scale;
    const std::int64_t rounded = places <= 0 ? product << std::min(-places, 20)
                                 : places > 40
                                     ? 0
                                     : (2 * product + (std::int64_t{1} << places)) >> (places + 1);
    return std::clamp(rounded, -scale - 1, scale) + (bits == 8 ? 128 : 0);
  }
  // value * 2^31 without its fraction. Full scale and above wraps. The upper bytes are the 24-bit
  // code.
  constexpr std::int64_t kLowest = -(std::int64_t{1} << 31);
  std::int64_t code = kLowest;
  if (value < 1.0F && value > -1.0F) {
    code = places <= 31   ? integer * (std::int64_t{1} << (31 - places))
           : places <= 71 ? integer / (std::int64_t{1} << (places - 31))
                          : 0;
  }
  return bits == 24 ? code >> 8 : code;
}

class Converters : public ::testing::TestWithParam<CpuLevel> {
 protected:
  void SetUp() override {
    if (GetParam() > HighestCpuLevel()) GTEST_SKIP();
    LimitCpuLevel(GetParam());
    ASSERT_EQ(CurrentCpuLevel(), GetParam());
  }
  void TearDown() override { LimitCpuLevel(HighestCpuLevel()); }
};

INSTANTIATE_TEST_SUITE_P(EveryLevel, Converters,
                         ::testing::Values(CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2));

TEST_P(Converters, WriteTheCodesOfExactArithmetic) {
  std::vector<float> samples = {0.0F, -0.0F, kNan, -kNan, kInfinity, -kInfinity, 1.0F, -1.0F};
  // A stride that is no multiple of any power of two visits all exponents and both signs.
  constexpr std::uint64_t kStride = 4001;
  for (std::uint64_t pattern = 0; pattern < std::uint64_t{1} << 32; pattern += kStride) {
    samples.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(pattern)));
  }
  // The floats around the middle between two codes, and around the codes of 32 bits near zero.
  const auto add_neighbours = [&samples](double middle) {
    const auto nearest = static_cast<float>(middle);
    samples.insert(samples.end(), {std::nextafter(nearest, -kInfinity), nearest,
                                   std::nextafter(nearest, kInfinity)});
  };
  for (int code = -32769; code <= 32768; ++code) {
    for (const double scale : {127.0, 32767.0}) add_neighbours((code + 0.5) / scale);
    add_neighbours(std::ldexp(code, -31));
  }
  for (const int bits : kWidths) {
    const Codes codes = Encode(samples, bits);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(codes[i], ExactCode(samples[i], bits)) << samples[i] << " at " << bits;
    }
  }
  const float literal[] = {0.5F, -0.5F, 1.0F, -1.0F, -1.00002F, 2.0F, -2.0F};
  EXPECT_EQ(Encode(literal, 8), (Codes{192, 65, 255, 1, 1, 255, 0}));
  EXPECT_EQ(Encode(literal, 16), (Codes{16384, -16383, 32767, -32767, -32768, 32767, -32768}));
  constexpr int kLow24 = -8388608;
  EXPECT_EQ(Encode(literal, 24),
            (Codes{4194304, -4194304, kLow24, kLow24, kLow24, kLow24, kLow24}));
}

TEST_P(Converters, ReadEveryCodeAsTheNearestFloat) {
  struct Range {
    int bits;
    std::int64_t first, last, step;
    double denominator;
  };
  const Range ranges[] = {{8, 0, 255, 1, 127},
                          {16, -32768, 32767, 1, 32767},
                          {24, -8388608, 8388607, 7, 0x1p23},
                          {32, -2147483648LL, 2147483647, 65003, 0x1p31},
                          // Halfway between two floats, of which the even one is nearer.
                          {32, 0x40000000, 0x40001000, 0x40, 0x1p31}};
  for (const auto& [bits, first, last, step, denominator] : ranges) {
    Codes codes;
    std::vector<float> expected;
    for (std::int64_t code = first; code <= last; code += step) {
      codes.push_back(code);
      const auto number = static_cast<double>(bits == 8 ? code - 127 : code);
      expected.push_back(static_cast<float>(number / denominator));
    }
    EXPECT_EQ(Decode(codes, bits), expected);
  }
}

TEST(PcmBytesPerSample, ChoosesTheWidthForOddBits) {
  for (const int bits : {-32768, -1, 0, 8, 9, 16, 17, 24, 25, 32, 33, 64, 65, 32767}) {
    EXPECT_EQ(PcmBytesPerSample(bits), bits <= 8 ? 1U : bits <= 16 ? 2U : bits <= 24 ? 3U : 4U);
  }
}

TEST_P(Converters, TouchNothingOutsideABlockOfAnyLengthAtAnyPlace) {
  constexpr std::size_t kMargin = 40;
  constexpr std::size_t kLongest = 67;
  std::vector<float> samples(kLongest);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<float>(i) / 31 - 1.1F;
  for (const int bits : kWidths) {
    const auto width = static_cast<std::size_t>(bits / 8);
    std::vector<std::byte> codes(samples.size() * width);
    std::vector<float> floats(samples.size());
    ConvertFloatToPcm(samples, codes, bits);
    ConvertPcmToFloat(codes, floats, bits);
    for (std::size_t count = 0; count <= kLongest; ++count) {
      const std::size_t place = kMargin + count % 4;
      std::vector<std::byte> pcm(2 * kMargin + count * width, std::byte{0xA5});
      auto expected_pcm = pcm;
      std::copy_n(codes.begin(), count * width, &expected_pcm[place]);
      const auto inside = std::span(pcm).subspan(place, count * width);
      ConvertFloatToPcm(std::span(samples).first(count), inside, bits);
      ASSERT_EQ(pcm, expected_pcm) << bits << " bits, " << count << " samples";

      std::vector<float> read(2 * kMargin + count, 77.0F);
      auto expected_read = read;
      std::copy_n(floats.begin(), count, &expected_read[kMargin]);
      ConvertPcmToFloat(inside, std::span(read).subspan(kMargin, count), bits);
      ASSERT_EQ(read, expected_read) << bits << " bits, " << count << " samples";
    }
  }
}

}  // namespace
}  // namespace marlinda
