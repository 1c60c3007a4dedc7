#include "host/progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

namespace marlinda {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

TEST(Progress, LinesAreEquallyLongWhateverTheFractionClaims) {
  const std::size_t length = ProgressLine("Reading", 0.5).size();
  for (const double fraction :
       {0.0, 0.004, 0.999, 1.0, -3.0, 7.0, std::numeric_limits<double>::quiet_NaN(),
        std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(ProgressLine("Reading", fraction).size(), length) << fraction;
  }
  EXPECT_THAT(ProgressLine("Reading", 0.999), EndsWith(" 99 %"));
  EXPECT_THAT(ProgressLine("Reading", 0.999), HasSubstr("# ]"));
  EXPECT_THAT(ProgressLine("Reading", 7.0), HasSubstr("##] 100 %"));
  EXPECT_THAT(ProgressLine("Reading", -3.0), HasSubstr("[  "));
}

TEST(Progress, GivesAProgramOneLineForEachPercentAndNoBar) {
  std::ostringstream lines;
  {
    ProgressBar bar({.lines = &lines}, "Reading a b");
    for (const double fraction : {0.0, 0.004, 0.5, 0.509, 0.51, 1.0}) bar.Show(fraction);
  }
  EXPECT_EQ(lines.str(),
            "progress 0 Reading a b\nprogress 50 Reading a b\nprogress 51 Reading a b\n"
            "progress 100 Reading a b\n");
}

TEST(Progress, WipesItsLineAtTheEndAndDrawsOnlyChanges) {
  std::ostringstream screen;
  {
    ProgressBar bar({.terminal = &screen}, "T");
    bar.Show(0.5);
    bar.Show(0.5001);
    ProgressBar nowhere({}, "T");
    nowhere.Show(0.5);
  }
  const std::string line = ProgressLine("T", 0.5);
  EXPECT_EQ(screen.str(), "\r" + line + "\r" + std::string(line.size(), ' ') + "\r");
}

}  // namespace
}  // namespace marlinda
