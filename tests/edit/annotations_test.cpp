#include "edit/annotations.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>

namespace marlinda {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

std::string Text(const Annotations& annotations) {
  std::string text;
  for (const Label& label : annotations.labels) {
    text += label.name + "@" + std::to_string(label.position) + " ";
  }
  for (const SectionMarker& marker : annotations.markers) {
    text += marker.name + "[" + std::to_string(marker.section.begin) + "," +
            std::to_string(marker.section.end) + ") ";
  }
  if (!text.empty()) text.pop_back();
  return text;
}

TEST(Annotations, APartIsClippedMovedAndInTheSameOrder) {
  const Annotations annotations{{{500, "b"}, {100, "a"}, {99, "c"}, {199, "d"}, {200, "e"}},
                                {{{0, 100}, "before"},
                                 {{150, 300}, "into"},
                                 {{50, 101}, "out"},
                                 {{150, 150}, "empty"},
                                 {{-5, 999}, "around"}}};
  Annotations part = annotations.Part({100, 200}, -100);
  EXPECT_EQ(Text(part), "a@0 d@99 into[50,100) out[0,1) around[0,100)");
  part.Append(annotations.Part({400, 600}, 0));
  EXPECT_EQ(Text(part), "a@0 d@99 b@500 into[50,100) out[0,1) around[0,100) around[400,600)");
  EXPECT_EQ(Text(annotations.Part({200, 100}, 0)), "");
}

TEST(Annotations, MoveWithAnInsertionFromItsPositionOn) {
  Annotations annotations{{{500, "b"}, {100, "a"}, {99, "c"}, {500, "d"}},
                          {{{0, 100}, "before"},
                           {{100, 200}, "at"},
                           {{50, 101}, "around"},
                           {{150, 150}, "empty"},
                           {{120, 30}, "backward"},
                           {{90, 20}, "stays"}}};
  annotations.MoveForInsertion(100, 10);
  EXPECT_EQ(Text(annotations),
            "b@510 a@110 c@99 d@510 before[0,100) at[110,210) around[50,100) empty[160,160) "
            "backward[130,40) stays[90,20) around[110,111)");
}

TEST(Annotations, AnInsertionOfNothingStillCutsTheMarkersAroundIt) {
  Annotations annotations{{{7, "l"}}, {{{0, 10}, "one"}, {{3, 8}, "two"}, {{5, 6}, "three"}}};
  annotations.MoveForInsertion(5, 0);
  EXPECT_EQ(Text(annotations), "l@7 one[0,5) two[3,5) three[5,6) one[5,10) two[5,8)");
  annotations.MoveForInsertion(8, -3);
  EXPECT_EQ(Text(annotations), "l@7 one[0,5) two[3,5) three[5,6) one[5,8) two[5,8) one[5,7)");
}

// Every marker covers the same frames of the content as before, wherever these have moved.
TEST(Annotations, MarkersKeepCoveringTheSameFrames) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> draw(0, 60);
  const auto covered = [](const Annotations& annotations) {
    std::map<std::string, std::multiset<std::int64_t>> frames;
    for (const auto& marker : annotations.markers) {
      for (auto f = marker.section.begin; f < marker.section.end; ++f) {
        frames[marker.name].insert(f);
      }
    }
    return frames;
  };
  for (int round = 0; round < 200; ++round) {
    Annotations annotations;
    for (int i = 0; i < 6; ++i) {
      const int begin = draw(random);
      annotations.markers.push_back({{begin, begin + 1 + draw(random)}, std::to_string(i)});
    }
    for (int edit = 0; edit < 5; ++edit) {
      const int position = draw(random);
      const int length = draw(random);
      auto expected = covered(annotations);
      for (auto& [name, frames] : expected) {
        std::multiset<std::int64_t> moved;
        for (const auto frame : frames) moved.insert(frame >= position ? frame + length : frame);
        frames = moved;
      }
      annotations.MoveForInsertion(position, length);
      ASSERT_EQ(covered(annotations), expected);
    }
  }
}

TEST(Annotations, ExtremePositionsWrapWithoutHarm) {
  Annotations annotations{{{kMax, "l"}}, {{{kMin, kMax}, "m"}}};
  annotations.MoveForInsertion(0, kMax);
  EXPECT_EQ(annotations.labels[0].position, -2);
  ASSERT_EQ(annotations.markers.size(), 2u);
  EXPECT_EQ(annotations.markers[0].section.end, 0);
  EXPECT_EQ(annotations.markers[1].section.begin, kMax);
}

TEST(Annotations, ClippingKeepsWhatHasFramesInTheRange) {
  const auto clip = [](CSection marker, CSection range) {
    const auto clipped = ClipMarker(marker, range);
    return clipped ? std::to_string(clipped->begin) + "," + std::to_string(clipped->end) : "";
  };
  EXPECT_EQ(clip({0, 100}, {10, 20}), "10,20");
  EXPECT_EQ(clip({15, 100}, {10, 20}), "15,20");
  EXPECT_EQ(clip({0, 15}, {10, 20}), "10,15");
  EXPECT_EQ(clip({12, 13}, {10, 20}), "12,13");
  EXPECT_EQ(clip({0, 10}, {10, 20}), "");
  EXPECT_EQ(clip({20, 30}, {10, 20}), "");
  EXPECT_EQ(clip({15, 15}, {10, 20}), "");
  EXPECT_EQ(clip({19, 11}, {10, 20}), "");
  EXPECT_EQ(clip({0, 100}, {20, 10}), "");
  EXPECT_EQ(clip({kMin, kMax}, {kMin, kMax}), std::to_string(kMin) + "," + std::to_string(kMax));
}

}  // namespace
}  // namespace marlinda
