// Progress, status lines and level meters, and the list of channels that play takes.
#include "host/progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/channel_list.h"

namespace marlinda {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(Progress, EachPercentIsOneLineForAProgramAndOneBarForAPerson) {
  std::ostringstream lines;
  std::ostringstream screen;
  {
    ProgressBar for_program({.lines = &lines}, "Reading a b");
    ProgressBar for_person({.terminal = &screen}, "T");
    for (const double fraction : {0.0, 0.004, 0.999, 7.0, kNaN}) for_program.Show(fraction);
    for (const double fraction : {0.5, 0.5001}) for_person.Show(fraction);
  }
  EXPECT_EQ(lines.str(),
            "progress 0 Reading a b\nprogress 99 Reading a b\nprogress 100 Reading a b\n"
            "progress 0 Reading a b\n");
  const std::string bar = "T [" + std::string(20, '#') + std::string(20, ' ') + "]  50 %";
  EXPECT_EQ(screen.str(), "\r" + bar + "\r" + std::string(bar.size(), ' ') + "\r");
}

TEST(StatusLine, OverwritesTheRestOfALongerLine) {
  std::ostringstream screen;
  {
    StatusLine line(&screen);
    line.Show("long line");
    line.Show("short");
  }
  EXPECT_EQ(screen.str(), "\rlong line\rshort    \r         \r");
}

std::string Meter(const std::vector<float>& levels) {
  const std::string line = TransportLine("Playing", 66150, 132300, 44100, levels);
  EXPECT_EQ(line.substr(0, 33), "Playing 0:00:01.500 / 0:00:03.000");
  return line.substr(33);
}

TEST(TransportLine, ShowsABarOfSixtyDecibelsForEachLevelWithinATerminal) {
  // 20 steps of 3 dB: half scale is 6 dB below the top.
  EXPECT_EQ(Meter({0.51F, 0.0F}), " [##################  ] [                    ]");
  EXPECT_EQ(Meter({1.0F}), " [###################!]");
  EXPECT_EQ(Meter({0.999F, 0.0009F}), " [################### ] [                    ]");
  EXPECT_EQ(Meter({-1.0F, static_cast<float>(kNaN)}), Meter({0.0F, 0.0F}));
  EXPECT_LE(TransportLine("Recording", 0, 44100, 44100, std::vector(6, 0.5F)).size(), 79U);
  // Bars that do not fit stay readable.
  EXPECT_THAT(Meter(std::vector(32, 1.0F)), EndsWith(" [##!]"));
}

TEST(ChannelList, ReadsNumbersFromZeroAndRefusesMissingChannels) {
  EXPECT_EQ(ParseChannelMask("1,0,5,5"), 35U);
  EXPECT_EQ(ParseChannelMask("31"), 0x80000000U);
  for (const char* text : {"", "0,", ",0", "0, 1", "-1", "1.0", "32", "99999999999999999999"}) {
    EXPECT_THROW(ParseChannelMask(text), std::invalid_argument) << text;
  }
  EXPECT_THAT(ChannelsOf(6, 8), ElementsAre(1, 2));
  EXPECT_EQ(ChannelsOf(0xFFFFFFFF, 40).size(), 32U);
  EXPECT_NO_THROW(RequireChannels(0xFFFFFFFF, 32));
  EXPECT_THROW(RequireChannels(4, 2), std::invalid_argument);
  EXPECT_THROW(RequireChannels(0x80000000, 31), std::invalid_argument);
}

}  // namespace
}  // namespace marlinda
