#include "edit/segment_list.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace marlinda {
namespace {

// The fuzzer aborts where the kernels and the plain lists differ.
TEST(EditKernels, GiveWhatWalksOverPlainListsGiveAfterRandomEdits) {
  std::mt19937 random(5);
  for (int round = 0; round < 500; ++round) {
    std::vector<std::uint8_t> bytes(random() % 2000);
    // In every other round without the extreme positions, where offsets overflow, and without
    // backward segments: only then can ranges be removed in place.
    const unsigned lowest = round % 2 == 0 ? 0 : 3;
    const unsigned highest = round % 2 == 0 ? 255 : 127;
    std::uniform_int_distribution<unsigned> byte(lowest, highest);
    for (std::uint8_t& value : bytes) value = static_cast<std::uint8_t>(byte(random));
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
}

using Source = std::shared_ptr<const int>;
using List = SegmentList<Source>;
using Segment = List::Segment;

class SegmentListTest : public ::testing::Test {
 protected:
  static void Insert(List& list, std::int64_t position, std::vector<Segment> segments) {
    const Segment* const found = list.DividedBy({position, position});
    Source divided = found != nullptr ? found->source : nullptr;
    list.Insert(position, segments, divided);
  }

  const Source a_ = std::make_shared<const int>(1);
  const Source b_ = std::make_shared<const int>(2);
  List list_;
};

TEST_F(SegmentListTest, CopiesAndDestroysNoHandleOfItsOwn) {
  for (int i = 0; i < 1000; ++i) list_.Append({a_, 0, 10});
  EXPECT_EQ(a_.use_count(), 1001);
  for (int i = 0; i < 1000; ++i) Insert(list_, i * 7 + 3, {{b_, 0, 1}});
  const auto handles = static_cast<long>(list_.Count());
  EXPECT_EQ(a_.use_count() + b_.use_count() - 2, handles);
  {
    Source none;
    // From inside one segment to inside another, which keep their handles.
    const auto removed = list_.Remove({5, list_.Length() - 5}, none);
    EXPECT_EQ(removed.size() + list_.Count(), static_cast<std::size_t>(handles));
    EXPECT_EQ(a_.use_count() + b_.use_count() - 2, handles);
    // Inside one segment, which becomes two.
    Source divided = a_;
    EXPECT_EQ(list_.DividedBy({1, 2})->source, a_);
    EXPECT_TRUE(list_.Remove({1, 2}, divided).empty());
    EXPECT_EQ(divided, nullptr);
    EXPECT_EQ(a_.use_count() + b_.use_count() - 2, handles + 1);
  }
  EXPECT_EQ(static_cast<std::size_t>(a_.use_count() + b_.use_count()) - 2, list_.Count());
  EXPECT_FALSE(list_.RemoveAll().empty());
  EXPECT_EQ(a_.use_count() + b_.use_count(), 2);
  EXPECT_EQ(list_.Count(), 0u);
}

TEST_F(SegmentListTest, IterationStaysOnItsSegmentAndEndsForGood) {
  for (int i = 0; i < 600; ++i) list_.Append({a_, i, i + 1});
  EXPECT_EQ(list_.First()->begin, 0);
  for (int i = 1; i <= 300; ++i) ASSERT_EQ(list_.Next()->begin, i);
  // Insertions before and behind make it neither lose nor repeat a segment.
  Insert(list_, 10, std::vector<Segment>(700, Segment(b_, 0, 1)));
  EXPECT_EQ(list_.Next()->begin, 301);
  // Directly before the segment, and directly behind it.
  Insert(list_, 700 + 301, {{b_, 7, 8}});
  EXPECT_EQ(list_.Next()->begin, 302);
  Insert(list_, 700 + 1 + 303, {{b_, 9, 10}});
  EXPECT_EQ(list_.Next()->begin, 9);
  for (int i = 303; i < 600; ++i) ASSERT_EQ(list_.Next()->begin, i);
  EXPECT_EQ(list_.Next(), nullptr);
  list_.Append({a_, 0, 1});
  EXPECT_EQ(list_.Next(), nullptr);
}

}  // namespace
}  // namespace marlinda
