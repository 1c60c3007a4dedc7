// The extremes of blocks, held bit by bit against two comparisons for each value in turn.
#include "core/samples/extremes.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace marlinda::testing {
namespace {

using Floats = std::vector<float>;

// One record of `size` floats after the other.
void Include(Floats& pairs, const Floats& values, std::size_t size, bool peaks) {
  for (std::size_t record = 0; record < values.size() / size; ++record) {
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
      const float* const value = &values[record * size + (peaks ? i : i / 2)];
      const float high = peaks ? value[1] : value[0];
      if (value[0] < pairs[i]) pairs[i] = value[0];
      if (high > pairs[i + 1]) pairs[i + 1] = high;
    }
  }
}

std::vector<std::uint32_t> Bits(const Floats& values) {
  std::vector<std::uint32_t> bits;
  for (const float value : values) bits.push_back(std::bit_cast<std::uint32_t>(value));
  return bits;
}

TEST(Extremes, AreThoseOfAWalkInOrderAlsoWhereZerosHaveSignsAndValuesAreNoNumbers) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  const Floats odd = {0.0F, -0.0F, kNan, kInfinity, -kInfinity, 1.0F, -1.0F, 1e-45F};
  std::minstd_rand random(7);
  std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
  // What the values are drawn from: noise, everything, zeros with what lies above or below them.
  const Floats palettes[] = {{}, odd, {0.0F, -0.0F}, {0.0F, -0.0F, 0.5F}, {-0.0F, 0.0F, -0.5F}};
  for (std::size_t channels = 1; channels <= 9; ++channels) {
    for (const bool peaks : {false, true}) {
      const std::size_t size = peaks ? 2 * channels : channels;
      for (std::size_t records = 0; records <= 130; ++records) {
        for (const Floats& palette : palettes) {
          const auto draw = [&] {
            return palette.empty() ? noise(random) : palette[random() % palette.size()];
          };
          Floats values(records * size);
          Floats pairs(2 * channels);
          for (float& value : values) value = draw();
          for (float& pair : pairs) pair = draw();
          Floats expected = pairs;
          Include(expected, values, size, peaks);
          if (peaks) {
            ExtendByPeaks(pairs, values);
          } else {
            ExtendBySamples(pairs, values);
          }
          ASSERT_EQ(Bits(pairs), Bits(expected))
              << channels << " channels, " << records << (peaks ? " peaks" : " frames");
        }
      }
    }
  }
}

}  // namespace
}  // namespace marlinda::testing
