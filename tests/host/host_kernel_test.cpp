// Tests the kernels of the host: times, cut plans, WAV files, pictures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <sstream>
#include <stdexcept>

#include "host/column_levels.h"
#include "host/cut_plan.h"
#include "host/timecode.h"
#include "host/wave_check.h"
#include "host/waveform_picture.h"

namespace marlinda {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Returns the reason why the call is refused, or an empty text.
template <class Call>
std::string RefusalOf(Call call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

TEST(Timecode, ConvertsExactlyToTheNearestFrameAndRefusesInvalidTexts) {
  const auto frames = [](const char* text, std::int32_t rate) {
    return Timecode::Parse(text).ToFrames(rate);
  };
  EXPECT_EQ(frames(".25", 48000), 12000);
  // Rounds half a frame up and less than half down.
  EXPECT_EQ(frames("0.5", 1), 1);
  EXPECT_EQ(frames("0.499999999", 1), 0);
  // This number needs more than the 53 bits of a double.
  EXPECT_EQ(frames("200000000000.00001", 100000), 20000000000000001);
  EXPECT_THROW(frames("9223372036854775807", 2), std::invalid_argument);
  EXPECT_EQ(frames("1:02:03.5", 1000), 3723500);
  for (const char* text : {"1:2", "1:60", ":05", "1:02:03:04", "1:02f", "", ".", "-1", "1e3",
                           "1234567890123:00", "1.5f", "1.0000000001"}) {
    EXPECT_THROW(Timecode::Parse(text), std::invalid_argument) << text;
  }
  EXPECT_EQ(FormatDuration(44099, 44100), "0:00:00.999") << "never rounded up";
}

TEST(Timecode, RangesSplitAtTheOnlyColonThatLeavesValidTimes) {
  const auto in_tenths = [](const std::optional<Timecode>& time) {
    return time ? time->ToFrames(10) : -1;
  };
  const std::tuple<const char*, int, int> ranges[] = {
      {"0.5:100f", 5, 100}, {":2", -1, 20}, {"0:00:05.000:1:02:03.500", 50, 37235}};
  for (const auto& [text, begin, end] : ranges) {
    EXPECT_EQ(in_tenths(ParseRange(text).begin), begin) << text;
    EXPECT_EQ(in_tenths(ParseRange(text).end), end) << text;
  }
  const std::tuple<const char*, int, const char*> names[] = {
      {"1:02:Verse: two", 620, "Verse: two"}, {"1:02", 10, "02"}, {"1:", 10, ""}};
  for (const auto& [text, at, name] : names) {
    EXPECT_EQ(in_tenths(ParseNamedTime(text).at), at) << text;
    EXPECT_EQ(ParseNamedTime(text).name, name);
  }
  EXPECT_EQ(in_tenths(ParseNamedRange("0:05:0:10:Verse: 2").range.end), 100);
  EXPECT_EQ(in_tenths(ParseSpan("0:05:250f").length), 250);
  // "10:20:30" may mean 10 to 20:30, or 10:20 to 30.
  for (const char* text : {"10:20:30", "", "2", "1:2:3", "1:x", "1-2"}) {
    EXPECT_THROW(ParseRange(text), std::invalid_argument) << text;
  }
  EXPECT_THROW(ParseNamedRange("10:20:30:x"), std::invalid_argument);
}

TEST(CutPlan, RefusesPositionsOutsideTheAudioAndNamesTheOption) {
  const std::pair<CutRequest, const char*> requests[] = {
      {{.keep = {"0:10.001"}},
       "--keep 0:10.001: the range reaches past the end of the audio (10000 frames, 0:00:10.000)"},
      {{.keep = {"2:2"}}, "holds no frame"},
      {{.keep = {"0:1"}, .silences = {"1.001:1"}}, "--silence"},
      {{.keep = {"0:1"}, .silences = {"1:0"}}, "holds no frame"},
      {{.keep = {"0:1"}, .silences = {"0:9223372036854775807f"}}, "too long"},
      {{.keep = {"0:1"}, .labels = {"1001f:x"}}, "--label"},
      {{.keep = {"0:1"}, .markers = {"0:1001f:x"}}, "--marker"},
      {{.keep = {"0:1"}, .silences = {"1:1"}, .labels = {"2:x"}}, ""},
  };
  for (const auto& [request, reason] : requests) {
    EXPECT_THAT(RefusalOf([&] { PlanCut(request, 10000, 1000); }), HasSubstr(reason));
  }
}

TEST(WaveCheck, AcceptsOnlyWholeFilesWhoseDataChunkMatchesTheFrameCount) {
  const auto examine = [](const std::string& bytes) {
    std::istringstream file(bytes);
    return ExamineWaveFile(file);
  };
  // The data chunk holds two frames of one 24-bit channel and two bytes of padding.
  constexpr std::string_view kBytes(
      "RIFF\x38\0\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1F\0\0\xC0\x5D\0\0\3\0\x18\0"
      "data\x8\0\0\0........LIST\4\0\0\0INFO",
      64);
  const std::string whole(kBytes);
  const auto facts = examine(whole);
  ASSERT_TRUE(facts.has_value());
  EXPECT_EQ(facts->bytes, 64);
  for (const int frames : {1, 2, 3}) EXPECT_EQ(HoldsFrames(*facts, frames), frames == 2);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_FALSE(examine(whole.substr(0, length)).has_value()) << length;
  }
  EXPECT_TRUE(FitsWaveFile(std::int64_t{1} << 30, 1, 16));
  EXPECT_FALSE(FitsWaveFile(std::int64_t{1} << 30, 2, 16));
}

constexpr int kWidth = 200;
constexpr int kHeight = 222;  // 200 for the lanes, 22 for the axis

struct Pixels {
  std::vector<std::uint8_t> bytes;
  Colour At(int x, int y) const {
    const auto at = static_cast<std::size_t>(3 * (y * kWidth + x));
    return {bytes.at(at), bytes.at(at + 1), bytes.at(at + 2)};
  }
  // Returns the rows in which the wave covers at least half of the column's pixel.
  std::vector<int> Wave(int column, int from = 0, int to = 200) const {
    std::vector<int> rows;
    for (int y = from; y < to; ++y) {
      if (At(column, y).red < 142) rows.push_back(y);
    }
    return rows;
  }
};

// Shapes a text as a box with six pixels per character.
ShapedText Shape(const std::string& text) {
  const double width = 6.0 * static_cast<double>(text.size());
  ShapedText shaped{{}, width};
  shaped.outline.AddPolygon({{0, -8}, {width, -8}, {width, 0}, {0, 0}});
  return shaped;
}

// Draws one second of sound. `pair` returns the extremes for a column and a channel.
template <class Pair>
Drawing Draw(Pair pair, Annotations annotations = {}, int channels = 1) {
  std::vector<float> pairs;
  for (int column = 0; column < kWidth; ++column) {
    for (int channel = 0; channel < channels; ++channel) {
      const auto [minimum, maximum] = pair(column, channel);
      pairs.insert(pairs.end(), {minimum, maximum});
    }
  }
  const Waveform waveform{pairs, {}, {}, channels, 0, 44100, 44100, std::move(annotations)};
  return DrawWaveform(waveform, {}, kWidth, kHeight, Shape);
}

std::pair<float, float> Silent(int, int) { return {0.0F, 0.0F}; }

TEST(WaveformPicture, EachLaneShowsItsChannelsMinimumAndMaximum) {
  const Pixels picture{Draw(
                           [&](int column, int channel) {
                             if (column < 50) return std::pair(0.0F, 0.0F);
                             return channel == 0 ? std::pair(-3.0F, 1.0e30F)
                                                 : std::pair(-0.5F, 0.5F);
                           },
                           {}, 2)
                           .Pixels()};
  EXPECT_THAT(picture.Wave(40, 0, 100), ElementsAre(AllOf(::testing::Ge(47), ::testing::Le(49))));
  EXPECT_LE(picture.Wave(80, 5, 100).front(), 5);
  EXPECT_GE(picture.Wave(80, 5, 100).size(), 90U);
  EXPECT_EQ(picture.At(80, 1), (Colour{220, 20, 20}));  // clipped
  EXPECT_NEAR(static_cast<int>(picture.Wave(80, 100, 200).size()), 49, 2);
  EXPECT_NEAR(picture.Wave(80, 100, 200).front(), 124, 2);
}

TEST(WaveformPicture, ConnectsNeighbouringColumnsAndSamples) {
  const Pixels columns{Draw([](int column, int) {
                         const float a = column % 2 == 0 ? -0.5F : 0.5F;
                         return std::pair(a, a + 0.01F);
                       }).Pixels()};
  EXPECT_GE(columns.Wave(100).size(), 90U);
  const std::vector<float> samples = {1, -1, -1, 1};
  const Waveform waveform{{}, {}, samples, 1, 0, 4, 44100, {}};
  const Pixels line{DrawWaveform(waveform, {}, kWidth, kHeight, Shape).Pixels()};
  EXPECT_NEAR(line.Wave(25).front(), 97, 4);  // half-way down
  EXPECT_NEAR(line.Wave(75).front(), 194, 4);
}

TEST(WaveformPicture, DrawsLabelsAndMarkersAtTheirTimesWithoutOverlappingNames) {
  Annotations annotations;
  annotations.labels = {{22050, "Half"}, {-5, "before"}, {44100, "after"}, {43000, "End"}};
  annotations.markers = {{{4410, 8820}, "Verse"}, {{30000, 20000}, "backward"}};
  const Pixels picture{Draw(Silent, annotations).Pixels()};
  const auto red = [&](int x, int y = 150) {
    return picture.At(x, y).red - picture.At(x, y).green > 40;
  };
  EXPECT_TRUE(red(100) && red(20) && red(40));
  EXPECT_FALSE(red(0) || red(kWidth - 1));
  EXPECT_TRUE(red(44, 8) && red(104, 8) && red(144, 8));  // names right of their lines
  EXPECT_FALSE(red(15, 8));
  EXPECT_TRUE(red(180, 8 + 15));  // the last name is left of its line, below "backward"

  // The smallest picture has room only for a lane.
  EXPECT_EQ(DrawWaveform({{}, {}, {}, 8, 0, 1, 0, annotations}, {}, 32, 32, Shape).Pixels().size(),
            3072U);
  EXPECT_THAT(Draw(Silent, annotations).Svg(), ::testing::StartsWith("<svg xmlns"));
}

TEST(ColumnLevels, EachFrameCountsInExactlyOneColumnForAnyBlockSizes) {
  constexpr std::size_t kFrames = 1'000;
  constexpr std::size_t kColumns = 37;
  std::mt19937 random(3);
  std::vector<float> samples(2 * kFrames);
  for (float& sample : samples) sample = std::uniform_real_distribution(-1.0F, -0.5F)(random);
  ColumnLevels levels(kFrames, kColumns, 2, true);
  for (std::size_t at = 0; at < kFrames;) {
    const std::size_t count = std::min<std::size_t>(random() % 60, kFrames - at);
    levels.Add(std::span(samples).subspan(2 * at, 2 * count));
    at += count;
  }
  const std::vector<float> rms = levels.RootMeanSquares();
  for (std::size_t i = 0; i < 2 * kColumns; ++i) {
    std::vector<float> own;
    for (std::size_t frame = 0; frame < kFrames; ++frame) {
      if (frame * kColumns / kFrames == i / 2) own.push_back(samples[2 * frame + i % 2]);
    }
    const auto [low, high] = std::ranges::minmax(own);
    ASSERT_THAT(levels.pairs().subspan(2 * i, 2), ElementsAre(low, high)) << i;
    const double squares = std::inner_product(own.begin(), own.end(), own.begin(), 0.0);
    ASSERT_FLOAT_EQ(rms[i], static_cast<float>(std::sqrt(squares / std::ssize(own)))) << i;
  }
}

}  // namespace
}  // namespace marlinda
