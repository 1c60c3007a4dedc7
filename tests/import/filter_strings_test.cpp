#include "import/filter_strings.h"

#include <gtest/gtest.h>

namespace marlinda::testing {
namespace {

TEST(FilterStrings, StandBetweenTheKnownTypesAndAllFilesInTheirOrder) {
  FilterStrings strings;
  strings.Add("Wave (*.wav)|*.wav|", "*.wav");
  strings.Add("Ogg (*.ogg)|*.ogg|", "*.ogg;*.oga");
  EXPECT_EQ(strings.patterns(), "*.wav;*.ogg;*.oga");
  EXPECT_EQ(strings.Compose("Known|", "All|*.*"),
            "Known|Wave (*.wav)|*.wav|Ogg (*.ogg)|*.ogg|All|*.*");
}

TEST(FilterStrings, AFilterWithoutPatternsAddsNoSeparatorWhereverItStands) {
  for (const int place : {0, 1, 2}) {
    FilterStrings strings;
    const char* const patterns[] = {"*.a", "*.b"};
    int next = 0;
    for (int i = 0; i < 3; ++i) {
      if (i == place) {
        strings.Add("none|", "");
      } else {
        strings.Add("some|", patterns[next++]);
      }
    }
    EXPECT_EQ(strings.patterns(), "*.a;*.b") << place;
    EXPECT_NE(strings.Compose("", "").find("none|"), std::string::npos) << place;
  }
  FilterStrings empty;
  EXPECT_EQ(empty.patterns(), "");
  EXPECT_EQ(empty.Compose("Known|", "All"), "Known|All");
}

}  // namespace
}  // namespace marlinda::testing
