// The kernels behind play, record and scrub.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/channel_list.h"
#include "host/progress.h"

namespace marlinda {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(ChannelList, ReadsNumbersIntoAMask) {
  EXPECT_EQ(ParseChannelMask("0"), 1U);
  EXPECT_EQ(ParseChannelMask("1,0"), 3U);
  EXPECT_EQ(ParseChannelMask("5,5"), 32U);
  EXPECT_EQ(ParseChannelMask("31"), 0x80000000U);
}

TEST(ChannelList, RefusesWhatIsNoList) {
  for (const char* text : {"", ",", "0,", ",0", "0,,1", "a", "0 1", "0, 1", "-1", "+1", "1.0", "32",
                           "99999999999999999999", "0x1"}) {
    EXPECT_THROW(ParseChannelMask(text), std::invalid_argument) << text;
  }
}

TEST(ChannelList, KnowsTheChannelsThatTheAudioHas) {
  EXPECT_THAT(ChannelsOf(0xFFFFFFFF, 2), ElementsAre(0, 1));
  EXPECT_THAT(ChannelsOf(6, 8), ElementsAre(1, 2));
  EXPECT_THAT(ChannelsOf(4, 2), IsEmpty());
  EXPECT_EQ(ChannelsOf(0xFFFFFFFF, 40).size(), 32U);
  EXPECT_NO_THROW(RequireChannels(3, 2));
  EXPECT_NO_THROW(RequireChannels(0xFFFFFFFF, 32));
  EXPECT_THROW(RequireChannels(4, 2), std::invalid_argument);
  EXPECT_THROW(RequireChannels(0x80000000, 31), std::invalid_argument);
}

std::string Meter(std::vector<float> levels) {
  const std::string line = TransportLine("Playing", 0, 44100, 44100, levels);
  return line.substr(line.find('['));
}

TEST(TransportLine, TellsPositionAndLengthAndABarForEachLevel) {
  EXPECT_EQ(TransportLine("Scrubbing", 66150, 132300, 44100, {}),
            "Scrubbing 0:00:01.500 / 0:00:03.000");
  // -60 dB to full scale in 20 steps of 3 dB: half scale is 6 dB below the top.
  EXPECT_EQ(Meter({0.51F, 0.0F}), "[##################  ] [                    ]");
  EXPECT_EQ(Meter({1.0F}), "[###################!]");
  EXPECT_EQ(Meter({0.999F}), "[################### ]");
  EXPECT_EQ(Meter({0.0009F}), "[                    ]");
}

TEST(TransportLine, LooksTheSameWhateverTheLevelsAre) {
  const std::size_t length = Meter({0.5F}).size();
  for (const float level :
       {-1.0F, 7.0F, 1e-30F, std::numeric_limits<float>::quiet_NaN(),
        std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()}) {
    EXPECT_EQ(Meter({level}).size(), length) << level;
  }
  EXPECT_THAT(Meter({std::numeric_limits<float>::quiet_NaN()}), HasSubstr("[   "));
}

TEST(TransportLine, FitsATerminalWithMoreChannels) {
  for (const std::size_t channels : {1U, 2U, 4U, 6U}) {
    const std::vector<float> levels(channels, 0.5F);
    const std::string line = TransportLine("Recording", 0, 44100, 44100, levels);
    EXPECT_LE(line.size(), 79U);
    EXPECT_EQ(std::ranges::count(line, '['), static_cast<std::ptrdiff_t>(channels));
  }
  // Too many to fit: the bars stay readable.
  const std::vector<float> many(32, 1.0F);
  EXPECT_THAT(TransportLine("Recording", 0, 44100, 44100, many), EndsWith(" [##!]"));
}

TEST(StatusLine, WipesWhatAShorterLineLeaves) {
  std::ostringstream screen;
  {
    StatusLine line(&screen);
    line.Show("long line");
    line.Show("short");
  }
  EXPECT_EQ(screen.str(), "\rlong line\rshort    \r         \r");
}

}  // namespace
}  // namespace marlinda
