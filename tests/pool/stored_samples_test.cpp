#include "pool/stored_samples.h"

#include <gtest/gtest.h>

#include <limits>

namespace marlinda {
namespace {

TEST(ByteOffset, IsExactWhereItFitsAndBeyondEveryFileWhereItDoesNot) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(ByteOffset(100, 6, 7), 142);
  EXPECT_EQ(ByteOffset(100, 6, -7), 58);
  EXPECT_EQ(ByteOffset(100, 0, kHighest), 100);
  EXPECT_EQ(ByteOffset(100, -4, 3), 100);
  EXPECT_EQ(ByteOffset(0, 1, kHighest), kHighest);
  EXPECT_EQ(ByteOffset(1, 1, kHighest), kHighest);
  EXPECT_EQ(ByteOffset(-1, 1, kLowest), kLowest);
  EXPECT_EQ(ByteOffset(0, 3, kHighest / 3 + 1), kHighest);
  EXPECT_EQ(ByteOffset(kLowest, 131068, kLowest), kLowest);
  EXPECT_EQ(ByteOffset(kHighest, 1, kLowest), -1);
  EXPECT_EQ(ByteOffset(-1, 1, kHighest), kHighest - 1);
  EXPECT_EQ(ByteOffset(1, 1, kLowest), kLowest + 1);
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
    stored.Decode(file.size(), read, bits);
    EXPECT_NEAR(read[1], -0.5F, 0.02F) << bits;
    EXPECT_NEAR(read[3], -1.0F, 0.02F) << bits;
    // The file ended one byte too early.
    stored.Decode(file.size() - 1, read, bits);
    EXPECT_NEAR(read[2], 0.25F, 0.02F) << bits;
    EXPECT_EQ(read[3], 0.0F) << bits;
  }
}

}  // namespace
}  // namespace marlinda
