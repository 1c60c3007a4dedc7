// The converters against exact integer arithmetic and literal codes, at every level of vector
// instructions that this processor has.
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

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();
constexpr float kLargest = std::numeric_limits<float>::max();
constexpr int kWidths[] = {8, 16, 24, 32};

float FloatOf(std::uint32_t pattern) { return std::bit_cast<float>(pattern); }

// Codes as numbers: unsigned for 8 bits, signed otherwise.
std::int64_t CodeAt(const std::byte* in, int bits) {
  std::int64_t code = 0;
  for (int i = 0; i < bits / 8; ++i) code |= std::to_integer<std::int64_t>(in[i]) << (8 * i);
  const std::int64_t half = std::int64_t{1} << (bits - 1);
  return bits > 8 && code >= half ? code - 2 * half : code;
}

// Blocks are long enough for every vector form.
std::vector<std::int64_t> EncodeAll(std::span<const float> samples, int bits) {
  const auto width = static_cast<std::size_t>(bits / 8);
  std::vector<std::byte> bytes(samples.size() * width);
  ConvertFloatToPcm(samples, bytes, bits);
  std::vector<std::int64_t> codes;
  for (std::size_t i = 0; i < samples.size(); ++i) codes.push_back(CodeAt(&bytes[i * width], bits));
  return codes;
}

std::vector<float> DecodeAll(std::span<const std::int64_t> codes, int bits) {
  std::vector<std::byte> bytes;
  for (const std::int64_t code : codes) {
    for (int i = 0; i < bits / 8; ++i) bytes.push_back(static_cast<std::byte>(code >> (8 * i)));
  }
  std::vector<float> samples(codes.size(), -99.0F);
  ConvertPcmToFloat(bytes, samples, bits);
  return samples;
}

std::int64_t Encode(float sample, int bits) {
  return EncodeAll(std::vector<float>(40, sample), bits).front();
}

float Decode(std::int64_t code, int bits) {
  return DecodeAll(std::vector<std::int64_t>(40, code), bits).front();
}

std::vector<CpuLevel> Levels() {
  std::vector<CpuLevel> levels;
  for (const CpuLevel level : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
    if (level <= HighestCpuLevel()) levels.push_back(level);
  }
  return levels;
}

class Converters : public ::testing::TestWithParam<CpuLevel> {
 protected:
  void SetUp() override {
    LimitCpuLevel(GetParam());
    ASSERT_EQ(CurrentCpuLevel(), GetParam());
  }
  void TearDown() override { LimitCpuLevel(HighestCpuLevel()); }
};

INSTANTIATE_TEST_SUITE_P(EveryLevel, Converters, ::testing::ValuesIn(Levels()));

// A finite float as the exact product integer * 2^exponent.
struct Exact {
  explicit Exact(float value) {
    const float fraction = std::frexp(value, &exponent);
    integer = static_cast<std::int64_t>(std::ldexp(fraction, 24));
    exponent -= 24;
  }
  std::int64_t integer;
  int exponent;
};

// floor(value * scale + 1/2) in integers. The product has at most 39 bits, so that beyond 40
// places behind the point nothing is left of it; large values only have to stay out of range.
std::int64_t ExactRound(float value, std::int64_t scale) {
  const Exact exact(value);
  const std::int64_t product = exact.integer * scale;
  if (exact.exponent >= 0) return product << std::min(exact.exponent, 20);
  const int places = -exact.exponent;
  if (places > 40) return 0;
  return (2 * product + (std::int64_t{1} << places)) >> (places + 1);
}

// The 32-bit code: value * 2^31 without its fraction; full scale and above wraps.
std::int64_t ExactCode32(float value) {
  constexpr std::int64_t kLowest = -(std::int64_t{1} << 31);
  if (value >= 1.0F || value <= -1.0F) return kLowest;
  const Exact exact(value);
  const int places = exact.exponent + 31;
  if (places >= 0) return exact.integer * (std::int64_t{1} << places);
  return places < -40 ? 0 : exact.integer / (std::int64_t{1} << -places);
}

std::int64_t ExactCode(float value, int bits) {
  if (std::isnan(value)) return bits == 8 ? 0 : -(std::int64_t{1} << (bits - 1));
  if (std::isinf(value)) value = std::copysign(kLargest, value);
  switch (bits) {
    case 8:
      return std::clamp<std::int64_t>(ExactRound(value, 127) + 128, 0, 255);
    case 16:
      return std::clamp<std::int64_t>(ExactRound(value, 32767), -32768, 32767);
    case 24:
      return ExactCode32(value) >> 8;
    default:
      return ExactCode32(value);
  }
}

TEST_P(Converters, WriteTheFixedCodesAtEveryEdge) {
  constexpr std::int64_t kLow24 = -8388608;
  constexpr std::int64_t kLow32 = -2147483648LL;
  struct Row {
    float sample;
    std::int64_t code8, code16, code24, code32;
  };
  const Row rows[] = {
      {0.0F, 128, 0, 0, 0},
      {-0.0F, 128, 0, 0, 0},
      {kDenormal, 128, 0, 0, 0},
      {-kDenormal, 128, 0, 0, 0},
      {0.5F, 192, 16384, 4194304, 1073741824},
      {-0.5F, 65, -16383, -4194304, -1073741824},
      // Full scale wraps at 24 and 32 bits, and only there.
      {1.0F, 255, 32767, kLow24, kLow32},
      {0x1.fffffep-1F, 255, 32767, 8388607, 2147483520},
      {-1.0F, 1, -32767, kLow24, kLow32},
      {-0x1.fffffep-1F, 1, -32767, kLow24, -2147483520},
      {-1.00002F, 1, -32768, kLow24, kLow32},
      {-1.01F, 0, -32768, kLow24, kLow32},
      {2.0F, 255, 32767, kLow24, kLow32},
      {-2.0F, 0, -32768, kLow24, kLow32},
      {1e9F, 255, 32767, kLow24, kLow32},
      {kLargest, 255, 32767, kLow24, kLow32},
      {-kLargest, 0, -32768, kLow24, kLow32},
      {kInfinity, 255, 32767, kLow24, kLow32},
      {-kInfinity, 0, -32768, kLow24, kLow32},
      {kNan, 0, -32768, kLow24, kLow32},
      {-kNan, 0, -32768, kLow24, kLow32},
      // Truncation is toward zero at 32 bits; the upper bytes of that are the 24-bit code.
      {0x1.fffffep-32F, 128, 0, 0, 0},
      {-0x1.fffffep-32F, 128, 0, 0, 0},
      {0x1p-31F, 128, 0, 0, 1},
      {-0x1p-31F, 128, 0, -1, -1},
      {0x1p-23F, 128, 0, 1, 256},
      {-0x1p-23F, 128, 0, -1, -256},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.sample);
    EXPECT_EQ(Encode(row.sample, 8), row.code8);
    EXPECT_EQ(Encode(row.sample, 16), row.code16);
    EXPECT_EQ(Encode(row.sample, 24), row.code24);
    EXPECT_EQ(Encode(row.sample, 32), row.code32);
  }
}

TEST_P(Converters, WriteWhatExactArithmeticGivesOverTheWholeRangeOfFloats) {
  // A stride that is no multiple of any power of two visits all exponents and both signs.
  constexpr std::uint64_t kStride = 4001;
  std::vector<float> samples;
  for (std::uint64_t pattern = 0; pattern < std::uint64_t{1} << 32; pattern += kStride) {
    samples.push_back(FloatOf(static_cast<std::uint32_t>(pattern)));
  }
  for (const int bits : kWidths) {
    const auto codes = EncodeAll(samples, bits);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(codes[i], ExactCode(samples[i], bits)) << i * kStride << " at " << bits;
    }
  }
}

TEST_P(Converters, ChangeCodesExactlyHalfwayBetweenThem) {
  for (const auto& [bits, scale, lowest] : {std::tuple{8, 127, -128}, {16, 32767, -32768}}) {
    // For each code the last float below the middle to the next code, and the first above it.
    std::vector<float> samples;
    std::vector<std::int64_t> expected;
    for (int code = lowest; code < scale; ++code) {
      const double middle = code + 0.5;  // the products below are exact
      auto first = static_cast<float>(middle / scale);
      while (static_cast<double>(first) * scale < middle) first = std::nextafter(first, kInfinity);
      const float before = std::nextafter(first, -kInfinity);
      ASSERT_LT(static_cast<double>(before) * scale, middle);
      samples.insert(samples.end(), {before, first});
      const int shown = bits == 8 ? code + 128 : code;
      expected.insert(expected.end(), {shown, shown + 1});
    }
    EXPECT_EQ(EncodeAll(samples, bits), expected);
  }
}

// value is the float nearest to numerator / denominator: at most half a step away. The product is
// exact in double.
void ExpectNearest(float value, std::int64_t numerator, std::int64_t denominator) {
  const double step = std::nextafter(std::fabs(value), kInfinity) - std::fabs(value);
  const double distance = std::fabs(static_cast<double>(value) * static_cast<double>(denominator) -
                                    static_cast<double>(numerator));
  ASSERT_LE(distance, step / 2 * static_cast<double>(denominator)) << numerator;
}

TEST_P(Converters, ReadEveryCodeAsTheNearestFloat) {
  struct Range {
    int bits;
    std::int64_t first, last, step, offset, denominator;
  };
  const Range ranges[] = {{8, 0, 255, 1, 127, 127},
                          {16, -32768, 32767, 1, 0, 32767},
                          {24, -8388608, 8388607, 7, 0, 8388608},
                          {32, -2147483648LL, 2147483647, 65003, 0, 2147483648LL}};
  for (const Range& range : ranges) {
    std::vector<std::int64_t> codes;
    for (std::int64_t code = range.first; code <= range.last; code += range.step) {
      codes.push_back(code);
    }
    const auto floats = DecodeAll(codes, range.bits);
    for (std::size_t i = 0; i < codes.size(); ++i) {
      ExpectNearest(floats[i], codes[i] - range.offset, range.denominator);
    }
  }
}

TEST_P(Converters, ReadTheFixedFloatsAtEveryEdge) {
  EXPECT_EQ(Decode(0, 8), -1.0F);
  EXPECT_EQ(Decode(127, 8), 0.0F);
  EXPECT_EQ(Decode(128, 8), 0x1.020408p-7F);  // 1/127: the centre is not 0
  EXPECT_EQ(Decode(255, 8), 0x1.020408p+0F);  // 128/127
  EXPECT_EQ(Decode(0, 16), 0.0F);
  EXPECT_FALSE(std::signbit(Decode(0, 16)));
  EXPECT_EQ(Decode(32767, 16), 1.0F);
  EXPECT_EQ(Decode(-32767, 16), -1.0F);
  EXPECT_EQ(Decode(-32768, 16), -0x1.0002p+0F);  // below -1.0
  EXPECT_EQ(Decode(-8388608, 24), -1.0F);
  EXPECT_EQ(Decode(8388607, 24), 0x1.fffffcp-1F);
  EXPECT_EQ(Decode(-1, 24), -0x1p-23F);
  EXPECT_EQ(Decode(-2147483648LL, 32), -1.0F);
  EXPECT_EQ(Decode(2147483647, 32), 1.0F);
  EXPECT_EQ(Decode(1, 32), 0x1p-31F);
  // Halfway between two floats the even one is taken.
  EXPECT_EQ(Decode(0x40000040, 32), 0x1p-1F);
  EXPECT_EQ(Decode(0x400000C0, 32), 0x1.000004p-1F);
}

TEST_P(Converters, ChooseTheWidthForOddBits) {
  struct Row {
    int bits;
    int width;
  };
  const Row rows[] = {{-32768, 8}, {-1, 8},  {0, 8},   {4, 8},   {8, 8},   {9, 16},    {12, 16},
                      {16, 16},    {17, 24}, {20, 24}, {24, 24}, {25, 32}, {31, 32},   {32, 32},
                      {33, 32},    {40, 32}, {48, 32}, {64, 32}, {65, 32}, {32767, 32}};
  const float samples[] = {0.3F, -0.7F, 1.0F};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.bits);
    ASSERT_EQ(PcmBytesPerSample(row.bits), static_cast<std::size_t>(row.width / 8));
    std::vector<std::byte> expected(12);
    std::vector<std::byte> actual(12);
    ConvertFloatToPcm(samples, expected, row.width);
    ConvertFloatToPcm(samples, actual, row.bits);
    EXPECT_EQ(actual, expected);
    float read_expected[3];
    float read_actual[3];
    ConvertPcmToFloat(expected, read_expected, row.width);
    ConvertPcmToFloat(expected, read_actual, row.bits);
    EXPECT_TRUE(std::ranges::equal(read_actual, read_expected));
  }
}

// Every short length at every alignment.
TEST_P(Converters, TouchNothingOutsideTheBlock) {
  constexpr std::size_t kMargin = 40;
  constexpr std::size_t kLongest = 67;
  constexpr std::byte kGuard{0xA5};
  std::vector<float> samples(kLongest);
  for (std::size_t i = 0; i < kLongest; ++i) {
    samples[i] = static_cast<float>(i) / 31.0F - 1.1F;
  }
  for (const int bits : kWidths) {
    const auto width = static_cast<std::size_t>(bits / 8);
    for (std::size_t count = 0; count <= kLongest; ++count) {
      for (std::size_t shift = 0; shift < 4; ++shift) {
        SCOPED_TRACE(::testing::Message() << bits << " bits, " << count << " samples");
        std::vector<std::byte> pcm(2 * kMargin + count * width, kGuard);
        const auto source = std::span(samples).subspan(std::min(shift, kLongest - count), count);
        const auto target = std::span(pcm).subspan(kMargin + shift, count * width);
        ConvertFloatToPcm(source, target, bits);
        for (std::size_t i = 0; i < count; ++i) {
          ASSERT_EQ(CodeAt(&target[i * width], bits), Encode(source[i], bits));
        }
        const auto guarded = [&](std::size_t begin, std::size_t end) {
          return std::all_of(&pcm[0] + begin, &pcm[0] + end,
                             [&](std::byte value) { return value == kGuard; });
        };
        ASSERT_TRUE(guarded(0, kMargin + shift));
        ASSERT_TRUE(guarded(kMargin + shift + count * width, pcm.size()));

        std::vector<float> floats(2 * kMargin + count, 77.0F);
        ConvertPcmToFloat(target, std::span(floats).subspan(kMargin, count), bits);
        for (std::size_t i = 0; i < floats.size(); ++i) {
          const bool inside = i >= kMargin && i < kMargin + count;
          ASSERT_EQ(floats[i],
                    inside ? Decode(CodeAt(&target[(i - kMargin) * width], bits), bits) : 77.0F);
        }
      }
    }
  }
}

}  // namespace
}  // namespace marlinda
