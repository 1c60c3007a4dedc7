#include "host/timecode.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace marlinda {
namespace {

std::int64_t Frames(const std::string& text, std::int32_t rate) {
  return Timecode::Parse(text).ToFrames(rate);
}

TEST(Timecode, SecondsBecomeTheNearestFrameExactlyAndFramesStay) {
  EXPECT_EQ(Frames("1.5", 44100), 66150);
  EXPECT_EQ(Frames("1.", 48000), 48000);
  EXPECT_EQ(Frames(".25", 48000), 12000);
  // Half a frame goes to the later one, less than half to the earlier one.
  EXPECT_EQ(Frames("0.5", 1), 1);
  EXPECT_EQ(Frames("0.499999999", 1), 0);
  // Beyond the 53 bits of a double.
  EXPECT_EQ(Frames("200000000000.00001", 100000), 20000000000000001);
  EXPECT_EQ(Frames("9223372036854775807f", 192000), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(Frames("9223372036854775807.4", 1), std::numeric_limits<std::int64_t>::max());
  EXPECT_THROW(Frames("9223372036854775807.5", 1), std::invalid_argument);
  EXPECT_THROW(Frames("9223372036854775807", 2), std::invalid_argument);
}

TEST(Timecode, RefusesOtherTexts) {
  for (const char* text : {"", ".", "f", "-1", "+1", "1e3", "1,5", " 1", "1 ", "0x10", "1.5f",
                           "nan", "1.2.3", "1.0000000001", "9223372036854775808f", "1s", "1F"}) {
    EXPECT_THROW(Timecode::Parse(text), std::invalid_argument) << text;
  }
}

TEST(Ranges, TakeEmptyEndsForTheEndsOfTheAudio) {
  const TimeRange both = ParseRange("0.5:100f");
  EXPECT_EQ(both.begin->ToFrames(10), 5);
  EXPECT_EQ(both.end->ToFrames(10), 100);
  EXPECT_FALSE(ParseRange(":2").begin.has_value());
  EXPECT_FALSE(ParseRange("2:").end.has_value());
  EXPECT_FALSE(ParseRange(":").begin.has_value());
  for (const char* text : {"", "2", "1:2:3", "1:x", "x:1", "1-2"}) {
    EXPECT_THROW(ParseRange(text), std::invalid_argument) << text;
  }
}

TEST(Names, KeepEverythingBehindTheirColon) {
  EXPECT_EQ(ParseNamedTime("1:Verse: two").name, "Verse: two");
  EXPECT_EQ(ParseNamedTime("1:").name, "");
  EXPECT_EQ(ParseNamedRange("1:2:a:b").name, "a:b");
  EXPECT_FALSE(ParseNamedRange("::all").range.end.has_value());
  EXPECT_EQ(ParseSpan("1:250f").length.ToFrames(8000), 250);
  EXPECT_THROW(ParseNamedTime("Verse"), std::invalid_argument);
  EXPECT_THROW(ParseNamedTime(":Verse"), std::invalid_argument);
  EXPECT_THROW(ParseNamedRange("1:Verse"), std::invalid_argument);
  EXPECT_THROW(ParseSpan("1:"), std::invalid_argument);
}

TEST(Durations, AreShownToTheMillisecondAndNeverRoundedUp) {
  EXPECT_EQ(FormatDuration(0, 44100), "0:00:00.000");
  EXPECT_EQ(FormatDuration(44099, 44100), "0:00:00.999");
  EXPECT_EQ(FormatDuration(3725LL * 48000 + 24000, 48000), "1:02:05.500");
  EXPECT_EQ(FormatDuration(std::numeric_limits<std::int64_t>::max(), 2147483647),
            "1193046:28:18.000");
  EXPECT_EQ(FormatDuration(-1, 44100), "unknown");
  EXPECT_EQ(FormatDuration(1, 0), "unknown");
}

}  // namespace
}  // namespace marlinda
