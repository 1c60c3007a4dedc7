#include "edit/segment_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace marlinda {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

// A counted source, told apart by its number. Null is silence.
using Source = std::shared_ptr<const int>;
using List = SegmentList<Source>;
using Segment = List::Segment;

Source MakeSource(int number) { return std::make_shared<const int>(number); }

std::string Text(const std::vector<Segment>& segments) {
  std::string text;
  for (const Segment& segment : segments) {
    text += segment.source ? static_cast<char>('A' + *segment.source) : '-';
    text += "[" + std::to_string(segment.begin) + "," + std::to_string(segment.end) + ") ";
  }
  if (!text.empty()) text.pop_back();
  return text;
}

std::string Text(const List& list) { return Text(list.All()); }

std::string Iterate(List& list) {
  std::vector<Segment> met;
  for (const Segment* segment = list.First(); segment != nullptr; segment = list.Next()) {
    met.push_back(*segment);
  }
  return Text(met);
}

// The rules as a plain walk over a plain list.
class WalkedList {
 public:
  void Append(const Segment& segment) { segments_.push_back(segment); }

  void Insert(std::int64_t position, const std::vector<Segment>& inserted) {
    const std::size_t at = SplitAt(position);
    segments_.insert(segments_.begin() + static_cast<std::ptrdiff_t>(at), inserted.begin(),
                     inserted.end());
  }

  std::vector<Segment> Cut(std::int64_t begin, std::int64_t end) const {
    std::vector<Segment> pieces;
    std::int64_t offset = 0;
    for (const Segment& segment : segments_) {
      CSection piece(segment.begin, segment.end);
      const std::int64_t first = SaturatingAdd(segment.begin, SaturatingSubtract(begin, offset));
      const std::int64_t last = SaturatingAdd(segment.begin, SaturatingSubtract(end, offset));
      if (first > segment.begin) piece.begin = first;
      if (last < segment.end) piece.end = last;
      if (piece.begin < piece.end) {
        pieces.emplace_back(segment.source, piece.begin, piece.end);
      }
      offset = WrappingAdd(offset, segment.Length());
    }
    return pieces;
  }

  // What is left and right of the range, cut out and joined.
  void Remove(std::int64_t begin, std::int64_t end) {
    std::vector<Segment> kept = Cut(0, begin);
    for (const Segment& piece : Cut(end, Length())) kept.push_back(piece);
    segments_ = std::move(kept);
  }

  bool AllHaveFrames() const {
    return std::ranges::all_of(segments_, [](const Segment& s) { return s.begin < s.end; });
  }

  std::int64_t Length() const {
    std::int64_t sum = 0;
    for (const Segment& segment : segments_) sum = WrappingAdd(sum, segment.Length());
    return sum;
  }

  const std::vector<Segment>& segments() const { return segments_; }

 private:
  // Number of segments before the place of an insertion.
  std::size_t SplitAt(std::int64_t position) {
    if (position == 0) return 0;
    std::int64_t offset = 0;
    for (std::size_t i = 0; i < segments_.size(); ++i) {
      const std::int64_t end = WrappingAdd(offset, segments_[i].Length());
      if (position == end) return i + 1;
      if (position < end) {
        Segment second = segments_[i];
        second.begin = WrappingAdd(second.begin, WrappingSubtract(position, offset));
        segments_[i].end = second.begin;
        segments_.insert(segments_.begin() + static_cast<std::ptrdiff_t>(i) + 1, second);
        return i + 1;
      }
      offset = end;
    }
    return segments_.size();
  }

  std::vector<Segment> segments_;
};

// Random edits on both lists. `odd_percent` of the segments are empty or backward; with `extremes`
// some more have bounds at the ends of the number range.
class RandomEdits {
 public:
  RandomEdits(unsigned seed, int odd_percent, bool extremes)
      : random_(seed), odd_percent_(odd_percent), extremes_(extremes) {
    for (int i = 0; i < 5; ++i) sources_.push_back(MakeSource(i));
    sources_.push_back(nullptr);
  }

  void Step() {
    switch (Draw(0, 9)) {
      case 0: {
        const Segment segment = RandomSegment();
        list_.Append(segment);
        walked_.Append(segment);
        break;
      }
      case 1: {
        // Now and then enough at once to fill several blocks.
        std::vector<Segment> many;
        for (std::int64_t n = Draw(0, Draw(0, 2) == 0 ? 900 : 4); n > 0; --n) {
          many.push_back(RandomSegment());
        }
        Insert(many);
        break;
      }
      case 2: {
        if (!list_.AllHaveFrames()) break;
        const std::int64_t begin = Draw(0, walked_.Length() + 100);
        // Now and then several blocks at once.
        const std::int64_t end = begin + Draw(0, Draw(0, 8) == 0 ? 30'000 : 200);
        EXPECT_TRUE(walked_.AllHaveFrames());
        ++removals_;
        walked_.Remove(begin, end);
        list_.Remove({begin, end});
        EXPECT_EQ(list_.Next(), nullptr);
        break;
      }
      default:
        Insert({RandomSegment()});
    }
  }

  void Compare() {
    ASSERT_EQ(list_.Length(), walked_.Length());
    ASSERT_EQ(list_.Count(), walked_.segments().size());
    for (int i = 0; i < 3; ++i) {
      const std::int64_t begin = RandomPosition();
      const std::int64_t end = i == 0 ? RandomPosition() : SaturatingAdd(begin, Draw(-5, 200));
      ASSERT_EQ(Text(list_.Cut({begin, end})), Text(walked_.Cut(begin, end)));
    }
  }

  void CompareWhole() {
    ASSERT_EQ(Text(list_), Text(walked_.segments()));
    ASSERT_EQ(Text(list_.Copy()), Text(walked_.segments()));
    const std::int64_t begin = RandomPosition();
    ASSERT_EQ(Text(list_.CutList({begin, kMax})), Text(walked_.Cut(begin, kMax)));
    ASSERT_EQ(Iterate(list_), Text(walked_.segments()));
  }

  std::size_t Count() const { return list_.Count(); }
  int removals() const { return removals_; }

 private:
  std::int64_t Draw(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
  }

  std::int64_t Extreme() {
    const std::int64_t near = Draw(0, 3);
    return Draw(0, 1) == 0 ? kMin + near : kMax - near;
  }

  Segment RandomSegment() {
    if (extremes_ && Draw(0, 20) == 0) {
      const std::int64_t other = Draw(0, 1) == 0 ? Extreme() : Draw(-1000, 1000);
      return {sources_[static_cast<std::size_t>(Draw(0, 5))], Extreme(), other};
    }
    const std::int64_t begin = Draw(-1000, 1000);
    const bool odd = Draw(0, 99) < odd_percent_;
    return {sources_[static_cast<std::size_t>(Draw(0, 5))], begin,
            begin + (odd ? Draw(-60, 0) : Draw(1, 60))};
  }

  std::int64_t RandomPosition() {
    if (extremes_ && Draw(0, 9) == 0) return Extreme();
    const std::int64_t length = walked_.Length();
    const std::int64_t low = std::min<std::int64_t>(0, length);
    const std::int64_t high = std::max<std::int64_t>(0, length);
    if (Draw(0, 9) != 0) return Draw(low, high);
    // A cut at a negative position leaves a backward segment.
    return Draw(odd_percent_ > 0 ? SaturatingSubtract(low, 300) : 0, SaturatingAdd(high, 300));
  }

  void Insert(const std::vector<Segment>& segments) {
    const std::int64_t position = RandomPosition();
    list_.Insert(position, segments);
    walked_.Insert(position, segments);
  }

  std::mt19937 random_;
  int odd_percent_;
  bool extremes_;
  std::vector<Source> sources_;
  List list_;
  WalkedList walked_;
  int removals_ = 0;
};

void CompareRandomEdits(int odd_percent, bool extremes) {
  RandomEdits edits(20 + static_cast<unsigned>(odd_percent), odd_percent, extremes);
  for (int step = 0; step < 400; ++step) {
    edits.Step();
    edits.Compare();
    if (step % 100 == 0) edits.CompareWhole();
    if (::testing::Test::HasFatalFailure()) return;
  }
  edits.CompareWhole();
  EXPECT_TRUE(odd_percent > 0 || edits.removals() > 20);
  // Fewer would not leave the first blocks of the list.
  EXPECT_GT(edits.Count(), 2000u);
}

TEST(SegmentList, GivesWhatAWalkOverThePlainListGives) {
  for (const int odd_percent : {0, 1, 30, 80}) {
    SCOPED_TRACE(odd_percent);
    CompareRandomEdits(odd_percent, false);
  }
}

TEST(SegmentList, GivesWhatTheWalkGivesAlsoWhereOffsetsWrap) { CompareRandomEdits(20, true); }

class SegmentListTest : public ::testing::Test {
 protected:
  const Source a_ = MakeSource(0);
  const Source b_ = MakeSource(1);
  List list_;
};

TEST_F(SegmentListTest, SplitsOnlyInsideASegment) {
  list_.Append({a_, 100, 200});
  list_.Append({b_, 0, 50});
  list_.Insert(100, {{nullptr, 0, 1}});
  EXPECT_EQ(Text(list_), "A[100,200) -[0,1) B[0,50)");
  list_.Insert(0, {{nullptr, 0, 2}});
  EXPECT_EQ(Text(list_), "-[0,2) A[100,200) -[0,1) B[0,50)");
  list_.Insert(12, {{b_, 7, 8}});
  EXPECT_EQ(Text(list_), "-[0,2) A[100,110) B[7,8) A[110,200) -[0,1) B[0,50)");
  list_.Insert(1000, {{a_, 0, 1}});
  EXPECT_EQ(Text(list_), "-[0,2) A[100,110) B[7,8) A[110,200) -[0,1) B[0,50) A[0,1)");
  // Nothing to insert still splits.
  list_.Insert(1, {});
  EXPECT_EQ(Text(list_), "-[0,1) -[1,2) A[100,110) B[7,8) A[110,200) -[0,1) B[0,50) A[0,1)");
}

TEST_F(SegmentListTest, StoresEmptyAndBackwardSegmentsAsGiven) {
  list_.Append({a_, 10, 10});
  list_.Append({b_, 50, 20});
  EXPECT_EQ(list_.Length(), -30);
  EXPECT_EQ(Text(list_), "A[10,10) B[50,20)");
  EXPECT_EQ(Text(list_.Cut({-100, 100})), "");
  // The frames behind a backward segment come to lie at positions that were passed before.
  list_.Append({a_, 0, 40});
  EXPECT_EQ(list_.Length(), 10);
  EXPECT_EQ(Text(list_.Cut({0, 10})), "A[30,40)");
  EXPECT_EQ(Text(list_.Cut({-30, 0})), "A[0,30)");
}

TEST_F(SegmentListTest, CutsBeforeTheBeginOfTheFirstSegmentAtANegativePosition) {
  list_.Append({a_, 100, 200});
  list_.Insert(-10, {{b_, 0, 5}});
  EXPECT_EQ(Text(list_), "A[100,90) B[0,5) A[90,200)");
  EXPECT_EQ(list_.Length(), 105);
}

TEST_F(SegmentListTest, TakesTheLargestPositionAsTheEnd) {
  list_.Append({a_, 100, 200});
  list_.Append({b_, kMax - 10, kMax});
  list_.Append({nullptr, kMin, kMin + 5});
  const std::string whole = "A[100,200) B[" + std::to_string(kMax - 10) + "," +
                            std::to_string(kMax) + ") -[" + std::to_string(kMin) + "," +
                            std::to_string(kMin + 5) + ")";
  EXPECT_EQ(Text(list_.Cut({0, kMax})), whole);
  EXPECT_EQ(Text(list_.Cut({kMin, kMax})), whole);
  EXPECT_EQ(Text(list_.Cut({kMax, kMin})), "");
  EXPECT_EQ(Text(list_.Cut({kMin, 1})), "A[100,101)");
  EXPECT_EQ(Text(list_.Cut({kMax - 1, kMax})), "");
  EXPECT_EQ(Text(list_.Cut({kMin, kMin + 1})), "");
  list_.Insert(kMax, {{a_, 1, 2}});
  EXPECT_EQ(Text(list_), whole + " A[1,2)");
}

TEST_F(SegmentListTest, SplitsNothingAtTheEndOfASegmentInAnyBlock) {
  for (int i = 0; i < 1000; ++i) list_.Append({a_, 0, 3});
  for (std::int64_t position = 0; position <= 3000; ++position) {
    List list = list_;
    list.Insert(position, {{b_, 0, 1}});
    ASSERT_EQ(list.Count(), position % 3 == 0 ? 1001u : 1002u) << position;
  }
}

TEST_F(SegmentListTest, GivesEveryReferenceBack) {
  {
    List list;
    for (int i = 0; i < 1000; ++i) list.Append({a_, 0, 10});
    EXPECT_EQ(a_.use_count(), 1001);
    for (int i = 0; i < 1000; ++i) list.Insert(i * 7 + 3, {{b_, 0, 1}});
    EXPECT_EQ(b_.use_count(), 1001);
    const auto pieces = list.Cut({5, 25});
    EXPECT_GT(pieces.size(), 2u);
    {
      // From inside one segment to inside another: those keep their references.
      const auto removed = list.Remove({5, list.Length() - 5});
      EXPECT_GT(removed.size(), 1000u);
      EXPECT_EQ(list.Count() + removed.size() + pieces.size(),
                static_cast<std::size_t>(a_.use_count() + b_.use_count()) - 2);
    }
    EXPECT_EQ(list.Count() + pieces.size(),
              static_cast<std::size_t>(a_.use_count() + b_.use_count()) - 2);
  }
  EXPECT_EQ(a_.use_count(), 1);
  EXPECT_EQ(b_.use_count(), 1);
}

TEST_F(SegmentListTest, IterationStaysOnItsSegmentAndEndsForGood) {
  EXPECT_EQ(list_.First(), nullptr);
  for (int i = 0; i < 600; ++i) list_.Append({a_, i, i + 1});
  EXPECT_EQ(list_.First()->begin, 0);
  for (int i = 1; i <= 300; ++i) ASSERT_EQ(list_.Next()->begin, i);
  // Neither what comes in front nor what comes behind makes it lose or repeat a segment.
  list_.Insert(10, std::vector<Segment>(700, Segment(b_, 0, 1)));
  EXPECT_EQ(list_.Next()->begin, 301);
  // Directly before the segment, and directly behind it.
  list_.Insert(700 + 301, {{b_, 7, 8}});
  EXPECT_EQ(list_.Next()->begin, 302);
  list_.Insert(700 + 1 + 303, {{b_, 9, 10}});
  EXPECT_EQ(list_.Next()->begin, 9);
  EXPECT_EQ(list_.Next()->begin, 303);
  list_.Insert(list_.Length() - 1, {{b_, 5, 6}});
  for (int i = 304; i < 599; ++i) ASSERT_EQ(list_.Next()->begin, i);
  EXPECT_EQ(list_.Next()->source, b_);
  EXPECT_EQ(list_.Next()->begin, 599);
  EXPECT_EQ(list_.Next(), nullptr);
  list_.Append({a_, 0, 1});
  EXPECT_EQ(list_.Next(), nullptr);
}

}  // namespace
}  // namespace marlinda
