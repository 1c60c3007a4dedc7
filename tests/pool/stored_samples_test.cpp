#include "pool/stored_samples.h"

#include <gtest/gtest.h>

#include <limits>

namespace marlinda {
namespace {

TEST(ByteOffset, IsExactWhereItFitsAndBeyondEveryFileWhereItDoesNot) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  const std::int64_t rows[][4] = {{100, 6, 7, 142},
                                  {100, 6, -7, 58},
                                  {100, 0, kHighest, 100},
                                  {100, -4, 3, 100},
                                  {0, 1, kHighest, kHighest},
                                  {1, 1, kHighest, kHighest},
                                  {-1, 1, kLowest, kLowest},
                                  {0, 3, kHighest / 3 + 1, kHighest},
                                  {kLowest, 131068, kLowest, kLowest},
                                  {kHighest, 1, kLowest, -1},
                                  {1, 1, kLowest, kLowest + 1}};
  for (const auto& [base, unit, count, expected] : rows) {
    EXPECT_EQ(ByteOffset(base, unit, count), expected) << base << " " << unit << " " << count;
  }
}

TEST(StoredSamples, StoresBitsOverEightBytesAndReadsTheCommonWidthsBack) {
  const float samples[] = {1.0F, -0.5F, 0.25F, -1.0F};
  StoredSamples stored;
  for (int bits = 8; bits <= 40; ++bits) {
    // A larger block before leaves its bytes in the buffer.
    stored.Encode(std::vector<float>(16, 0.7F), bits);
    const auto bytes = stored.Encode(samples, bits);
    ASSERT_EQ(bytes.size(), 4U * (static_cast<unsigned>(bits) / 8)) << bits;
    EXPECT_TRUE(bits != 40 || bytes.back() == std::byte{});
    if (bits != 8 && bits != 16 && bits != 24 && (bits < 33 || bits > 39)) continue;
    const std::vector<std::byte> file(bytes.begin(), bytes.end());
    const auto room = stored.Prepare(4, bits);
    ASSERT_EQ(room.size(), file.size());
    std::ranges::copy(file, room.begin());
    float read[4] = {};
    // Then the file ends one byte too early.
    for (const float last : {-1.0F, 0.0F}) {
      stored.Decode(file.size() - (last == 0.0F ? 1 : 0), read, bits);
      EXPECT_NEAR(read[1], -0.5F, 0.02F) << bits;
      EXPECT_NEAR(read[2], 0.25F, 0.02F) << bits;
      EXPECT_NEAR(read[3], last, last == 0.0F ? 0.0F : 0.02F) << bits;
    }
  }
}

}  // namespace
}  // namespace marlinda
