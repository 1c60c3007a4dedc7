// The vector forms of the converters against the scalar form, bit for bit.
#include "core/samples/sample_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/samples/cpu_level.h"
#include "core/samples/sample_converter.h"
#include "tests/core/kernel_comparison.h"

namespace marlinda {
namespace {

using testing::KernelComparison;
using testing::VectorForms;

constexpr std::uint64_t kAllPatterns = std::uint64_t{1} << 32;
// Builds that are not optimised, as those with sanitizers, take fewer.
#ifdef NDEBUG
constexpr std::uint64_t kStride = 211;
#else
constexpr std::uint64_t kStride = 10007;
#endif

TEST(SampleKernels, GiveTheSameBitsForAStrideOfAllPatterns) {
  for (const auto& [name, form] : VectorForms()) {
    for (std::size_t width = 1; width <= 4; ++width) {
      KernelComparison comparison(*form, width);
      EXPECT_EQ(comparison.FirstDifference(0, kAllPatterns, kStride), std::nullopt)
          << name << ", " << width << " bytes";
      // Every code of 8 and 16 bits.
      EXPECT_EQ(comparison.FirstDifference(0, 65536, 1), std::nullopt);
    }
  }
}

// Every float within 300 steps of zeros, halves of codes, full scale, the ends of the integers, the
// denormals, the infinities and NaN, with both signs.
TEST(SampleKernels, GiveTheSameBitsAroundEverySpecialValue) {
  std::vector<float> special = {0.0F,
                                0x1p-126F,
                                0x1p-31F,
                                0x1p-23F,
                                1.0F,
                                32768.0F / 32767.0F,
                                128.0F / 127.0F,
                                2.0F,
                                65536.0F,
                                2147483648.0F,
                                0x1p63F,
                                0x1.fffffep127F,
                                std::bit_cast<float>(0x7FC00000U)};
  for (int code = 0; code < 128; ++code) {
    special.push_back((static_cast<float>(code) + 0.5F) / 127.0F);
  }
  for (int code = 1; code < 32768; code += 129) {
    special.push_back((static_cast<float>(code) - 0.5F) / 32767.0F);
  }
  for (const auto& [name, form] : VectorForms()) {
    for (std::size_t width = 1; width <= 4; ++width) {
      KernelComparison comparison(*form, width);
      for (const float value : special) {
        for (const std::uint32_t sign : {0U, 0x80000000U}) {
          const std::uint64_t middle = std::bit_cast<std::uint32_t>(value) | sign;
          const std::uint64_t first = middle < 300 ? 0 : middle - 300;
          ASSERT_EQ(comparison.FirstDifference(first, middle + 300, 1), std::nullopt)
              << name << ", " << width << " bytes, at " << value;
        }
      }
    }
  }
}

// Memory of exactly the size, so that a sanitizer sees what is read or written beyond it, and with
// the block at an odd place in it. Without one, the bytes around the result show a stray write.
TEST(SampleKernels, TouchNothingOutsideOfBlocksOfAnyLengthAtAnyPlace) {
  constexpr std::byte kGuard{0xA5};
  for (const auto& [name, form] : VectorForms()) {
    for (std::size_t width = 1; width <= 4; ++width) {
      for (std::size_t count = 0; count <= 100; ++count) {
        for (std::size_t shift = 0; shift < 4; ++shift) {
          SCOPED_TRACE(::testing::Message() << name << ", " << width << " bytes, " << count);
          const auto source = std::make_unique<float[]>(count + shift);
          for (std::size_t i = 0; i < count; ++i) {
            source[shift + i] = static_cast<float>(i) / 47.0F - 1.03F;
          }
          std::vector<std::byte> expected(count * width);
          kScalarSampleKernels.encode[width - 1](source.get() + shift, expected.data(), count);
          for (const std::size_t behind : {0, 40}) {
            std::vector<std::byte> codes(shift + count * width + behind, kGuard);
            form->encode[width - 1](source.get() + shift, codes.data() + shift, count);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), codes.begin() + shift));
            for (std::size_t i = 0; i < codes.size(); ++i) {
              const bool inside = i >= shift && i < shift + count * width;
              ASSERT_TRUE(inside || codes[i] == kGuard);
            }
            if (behind != 0) continue;
            std::vector<float> floats(count + 2 * shift, 77.0F);
            std::vector<float> decoded(count);
            kScalarSampleKernels.decode[width - 1](codes.data() + shift, decoded.data(), count);
            form->decode[width - 1](codes.data() + shift, floats.data() + shift, count);
            ASSERT_TRUE(std::equal(decoded.begin(), decoded.end(), floats.begin() + shift));
            for (std::size_t i = 0; i < shift; ++i) {
              ASSERT_EQ(floats[i], 77.0F);
              ASSERT_EQ(floats[shift + count + i], 77.0F);
            }
          }
        }
      }
    }
  }
}

// What a value of the lower level shows is that the limit reached the dispatch: no result tells.
TEST(CpuLevel, CanBeLimitedAndNeverExceedsTheProcessor) {
  const CpuLevel before = CurrentCpuLevel();
  EXPECT_EQ(before, HighestCpuLevel());
  for (const CpuLevel level : {CpuLevel::kScalar, CpuLevel::kSse2, CpuLevel::kAvx2}) {
    LimitCpuLevel(level);
    EXPECT_EQ(CurrentCpuLevel(), std::min(level, HighestCpuLevel()));
    const float sample = 0.5F;
    std::byte code[2];
    ConvertFloatToPcm({&sample, 1}, code, 16);
    EXPECT_EQ(code[1], std::byte{0x40});
  }
  LimitCpuLevel(before);
}

}  // namespace
}  // namespace marlinda
