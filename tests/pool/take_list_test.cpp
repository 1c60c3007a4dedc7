#include "pool/take_list.h"

#include <gtest/gtest.h>

#include <limits>

#include "pool/storage.h"

namespace marlinda {
namespace {

TEST(TakeList, TheCursorWalksBackFromTheLastTakeAndStaysPutWhileTakesAreAdded) {
  const PoolTake first = {0, 10, 0, 8};
  const PoolTake second = {10, 20, 8, 16};
  const PoolTake third = {20, 30, 16, 24};
  TakeList takes;
  EXPECT_EQ(takes.Current(), nullptr);
  takes.AimAtLast();
  EXPECT_EQ(takes.Current(), nullptr);
  takes.Add(first);
  EXPECT_EQ(takes.Current(), nullptr) << "adding a take does not set the cursor";

  takes.Add(second);
  takes.AimAtLast();
  EXPECT_EQ(*takes.Current(), second);
  takes.Add(third);
  EXPECT_EQ(*takes.Current(), second);
  takes.StepBack();
  EXPECT_EQ(*takes.Current(), first);
  takes.StepBack();
  EXPECT_EQ(takes.Current(), nullptr);
  takes.StepBack();
  EXPECT_EQ(takes.Current(), nullptr);
  takes.AimAtLast();
  EXPECT_EQ(*takes.Current(), third);
}

TEST(ByteOffset, IsExactWhereItFitsAndStaysBeyondEveryFileWhereItDoesNot) {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(ByteOffset(100, 6, 7), 142);
  EXPECT_EQ(ByteOffset(100, 6, -7), 58);
  EXPECT_EQ(ByteOffset(-100, 6, 7), -58);
  EXPECT_EQ(ByteOffset(5, 8, std::int64_t{1} << 40), (std::int64_t{1} << 43) + 5);
  EXPECT_EQ(ByteOffset(100, 0, kHighest), 100);
  EXPECT_EQ(ByteOffset(100, -4, 3), 100);
  EXPECT_EQ(ByteOffset(0, 1, kHighest), kHighest);
  EXPECT_EQ(ByteOffset(7, 1, kHighest - 7), kHighest);
  EXPECT_EQ(ByteOffset(0, 1, kLowest), kLowest);
  EXPECT_EQ(ByteOffset(1, 1, kHighest), kHighest);
  EXPECT_EQ(ByteOffset(-1, 1, kLowest), kLowest);
  EXPECT_EQ(ByteOffset(kHighest, 131068, kHighest), kHighest);
  EXPECT_EQ(ByteOffset(kLowest, 131068, kLowest), kLowest);
  EXPECT_EQ(ByteOffset(0, 3, kHighest / 3 + 1), kHighest);
  EXPECT_EQ(ByteOffset(kHighest, 1, kLowest), -1);
}

}  // namespace
}  // namespace marlinda
