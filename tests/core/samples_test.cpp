// Tests the sample queue, and the converters at every instruction level of this processor.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>
#include <vector>

#include "core/samples/audio_queue.h"
#include "core/samples/cpu_level.h"
#include "core/samples/sample_converter.h"

namespace marlinda {
namespace {

using Samples = std::vector<float>;
using Codes = std::vector<std::int64_t>;

constexpr int kWidths[] = {8, 16, 24, 32};

Samples Ramp(std::size_t count, std::size_t first = 0) {
  Samples ramp(count);
  std::iota(ramp.begin(), ramp.end(), static_cast<float>(first));
  return ramp;
}

TEST(AudioQueue, KeepsSamplesWhenItGrowsAndReadsSilencePastTheEnd) {
  CAudioQueue queue;
  queue.Append(Ramp(1500));
  Samples seen(1000);
  queue.Read(seen);
  queue.Append(Ramp(1547, 1500));  // wraps around the ring's end
  queue.Append(Ramp(10000, 3047));
  seen.assign(12050, 9.0F);
  queue.Read(seen, 5);
  auto expected = Ramp(12047, 1000);
  expected.resize(12050);
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(queue.Count(), 12042U);
}

// Exact, because the product of a float and a scale has at most 39 bits, which fit a double.
std::int64_t ExactCode(double value, int bits) {
  constexpr std::int64_t kLowest = -(std::int64_t{1} << 31);
  if (bits > 16) {
    // Values that do not fit, +1.0 and NaN included, become the most negative code. The 24-bit code
    // is the upper three bytes of the 32-bit code.
    const bool fits = value < 1.0 && value > -1.0;
    return (fits ? static_cast<std::int64_t>(value * 0x1p31) : kLowest) >> (32 - bits);
  }
  const double scale = bits == 8 ? 127 : 32767;
  const int middle = bits == 8 ? 128 : 0;
  if (std::isnan(value)) return bits == 8 ? 0 : -32768;
  const double code = std::clamp(std::floor(value * scale + 0.5), -scale - 1, scale);
  return static_cast<std::int64_t>(code) + middle;
}

// Calls `convert` for blocks of 0 to 66 samples, from the last block to the first. A conversion
// that writes past the end of its block then damages a block that is already converted.
void ForEachBlock(std::size_t left, const std::function<void(std::size_t, std::size_t)>& convert) {
  for (std::size_t length = 0; left > 0; length = (length + 1) % 67) {
    const std::size_t count = std::min(left, length);
    left -= count;
    convert(left, count);
  }
}

class Converters : public ::testing::TestWithParam<CpuLevel> {
 protected:
  void SetUp() override {
    if (GetParam() > HighestCpuLevel()) GTEST_SKIP();
    LimitCpuLevel(GetParam());
  }
  void TearDown() override { LimitCpuLevel(HighestCpuLevel()); }
};

INSTANTIATE_TEST_SUITE_P(EveryLevel, Converters,
                         ::testing::Values(CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2));

TEST_P(Converters, WriteTheCodesOfExactArithmetic) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  Samples samples = {0.0F, -0.0F, kNan, -kNan, kInfinity, -kInfinity, 1.0F, -1.0F};
  // These bit patterns include all exponents and both signs.
  for (std::uint64_t pattern = 0; pattern < std::uint64_t{1} << 32; pattern += 4001) {
    samples.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(pattern)));
  }
  // For each midpoint between codes of 8 or 16 bits, and for each 32-bit code near zero, adds the
  // nearest float and its two neighbours.
  for (int code = -32769; code <= 32768; ++code) {
    for (const double middle : {(code + 0.5) / 127, (code + 0.5) / 32767, std::ldexp(code, -31)}) {
      const auto nearest = static_cast<float>(middle);
      samples.insert(samples.end(), {std::nextafter(nearest, -kInfinity), nearest,
                                     std::nextafter(nearest, kInfinity)});
    }
  }
  for (const int bits : kWidths) {
    const auto width = static_cast<std::size_t>(bits / 8);
    std::vector<std::byte> bytes(samples.size() * width);
    ForEachBlock(samples.size(), [&](std::size_t at, std::size_t count) {
      ConvertFloatToPcm(std::span(samples).subspan(at, count),
                        std::span(bytes).subspan(at * width, count * width), bits);
    });
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const auto exact = static_cast<std::uint64_t>(ExactCode(samples[i], bits));
      for (std::size_t k = 0; k < width; ++k) {
        ASSERT_EQ(bytes[i * width + k], static_cast<std::byte>(exact >> 8 * k))
            << samples[i] << " at " << bits << " bits, byte " << k;
      }
    }
  }
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
                          // Halfway between two floats, the conversion chooses the even one.
                          {32, 0x40000000, 0x40001000, 0x40, 0x1p31}};
  for (const auto& [bits, first, last, step, denominator] : ranges) {
    std::vector<std::byte> bytes;
    Samples expected;
    for (std::int64_t code = first; code <= last; code += step) {
      for (int i = 0; i < bits; i += 8) bytes.push_back(static_cast<std::byte>(code >> i));
      const auto number = static_cast<double>(bits == 8 ? code - 127 : code);
      expected.push_back(static_cast<float>(number / denominator));
    }
    Samples samples(expected.size());
    const auto width = static_cast<std::size_t>(bits / 8);
    ForEachBlock(samples.size(), [&](std::size_t at, std::size_t count) {
      ConvertPcmToFloat(std::span(bytes).subspan(at * width, count * width),
                        std::span(samples).subspan(at, count), bits);
    });
    EXPECT_EQ(samples, expected);
  }
}

}  // namespace
}  // namespace marlinda
