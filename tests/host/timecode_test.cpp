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

TEST(Timecode, ReadsTimesAsTheyArePrinted) {
  EXPECT_EQ(Frames("0:05", 1000), 5000);
  EXPECT_EQ(Frames("61:30.25", 1000), 3690250);
  EXPECT_EQ(Frames("1:02:03.5", 1000), 3723500);
  for (const std::int64_t frames : {0, 999, 3'723'500, 360'000'001}) {
    EXPECT_EQ(Frames(FormatDuration(frames, 1000), 1000), frames);
  }
}

TEST(Timecode, RefusesOtherTexts) {
  for (const char* text :
       {"1:2",        "1:60",      "1:2:03", ":05",          "1:",
        "1:02:03:04", "1:02.5:03", "-1:02",  "1:02f",        "1234567890123:00",
        "",           ".",         "f",      "-1",           "+1",
        "1e3",        "1,5",       " 1",     "1 ",           "0x10",
        "1.5f",       "nan",       "1.2.3",  "1.0000000001", "9223372036854775808f",
        "1s",         "1F"}) {
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

TEST(Ranges, AreCutAtTheColonThatLeavesTwoTimes) {
  const TimeRange printed = ParseRange("0:00:05.000:1:02:03.500");
  EXPECT_EQ(printed.begin->ToFrames(10), 50);
  EXPECT_EQ(printed.end->ToFrames(10), 37235);
  EXPECT_EQ(ParseRange("0:10").end->ToFrames(1), 10);
  EXPECT_EQ(ParseRange("0:05:").begin->ToFrames(1), 5);
  EXPECT_EQ(ParseRange(":0:05").end->ToFrames(1), 5);
  EXPECT_THROW(ParseRange("10:20:30"), std::invalid_argument);  // 10 to 20:30, or 10:20 to 30
  EXPECT_EQ(ParseNamedTime("1:02:Verse").at.ToFrames(1), 62);
  EXPECT_EQ(ParseNamedTime("1:02").name, "02");
  EXPECT_EQ(ParseNamedRange("0:05:0:10:Verse: 2").range.end->ToFrames(1), 10);
  EXPECT_THROW(ParseNamedRange("10:20:30:x"), std::invalid_argument);
  EXPECT_EQ(ParseSpan("0:05:1.5").at.ToFrames(1), 5);
  EXPECT_THROW(ParseFromTo("soon", ""), std::invalid_argument);
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
