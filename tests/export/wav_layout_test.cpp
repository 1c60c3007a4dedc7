#include "export/wav_layout.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "core/extensible_rules.h"
#include "tests/export/memory_sink.h"

namespace marlinda::testing {
namespace {

using namespace riff;

Bytes Written(const std::function<void(RiffChunkWriter&)>& write) {
  MemoryFile file;
  RiffChunkWriter writer;
  writer.Attach(std::make_unique<MemorySink>(file));
  write(writer);
  writer.Close();
  return file.All();
}

Bytes ToBytes(const LittleEndianBytes& body) {
  Bytes result;
  for (const std::byte byte : body.bytes()) result.push_back(std::to_integer<unsigned char>(byte));
  return result;
}

TEST(WavLayout, WritesThePlainFormatInSixteenBytes) {
  EXPECT_EQ(ToBytes(PlainFormatBody({44100, 2, 24, false})), PlainFormat(1, 2, 44100, 3, 24));
  EXPECT_EQ(ToBytes(PlainFormatBody({192000, 1, 32, true})), PlainFormat(3, 1, 192000, 4, 32));
  // Whole bytes only, and a width that fills none gives a block align of 0.
  EXPECT_EQ(ToBytes(PlainFormatBody({8000, 2, 12, false})), PlainFormat(1, 2, 8000, 1, 12));
  EXPECT_EQ(ToBytes(PlainFormatBody({8000, 2, 7, false})), PlainFormat(1, 2, 8000, 0, 7));
}

TEST(WavLayout, CutsAbsurdFormatsToTheirFields) {
  EXPECT_EQ(ToBytes(PlainFormatBody({-1, -2, -8, false})),
            U16(1) + U16(0xFFFE) + U32(0xFFFFFFFF) + U32(0xFFFFFFFE) + U16(2) + U16(0xFFF8));
  // 32767 channels of 4095 bytes, at a rate that overflows every field.
  EXPECT_EQ(
      ToBytes(PlainFormatBody({std::numeric_limits<std::int32_t>::max(), 32767, 32767, false})),
      U16(1) + U16(32767) + U32(0x7FFFFFFF) + U32(134180865ULL * 0x7FFFFFFF) + U16(134180865) +
          U16(32767));
}

TEST(WavLayout, AnnouncesSpeakersForTheCustomaryChannelCounts) {
  for (const auto& [channels, mask] :
       {std::pair{1, 4}, {2, 3}, {3, 0}, {4, 0}, {5, 0}, {6, 0x3F}, {7, 0}, {8, 0xFF}, {9, 0}}) {
    const WavFormat format{48000, static_cast<std::int16_t>(channels), 16, false};
    EXPECT_EQ(ToBytes(ExtensibleFormatBody(format)),
              ExtensibleFormat(1, channels, 48000, 2, 16, mask));
  }
  EXPECT_EQ(ToBytes(ExtensibleFormatBody({48000, 6, 32, true})),
            ExtensibleFormat(3, 6, 48000, 4, 32, 0x3F));
  EXPECT_EQ(ChannelMask(1, true), 3U);
}

TEST(WavLayout, CarriesTheLastLabelsPositionIntoTheMarkersCuePoints) {
  const WavLabel labels[] = {{"first", 100}, {"", 200}};
  const WavMarker markers[] = {{"region", 300, 400}, {"backward", 50, 20}};
  EXPECT_EQ(Written([&](RiffChunkWriter& file) { WriteCuesAndRegions(file, labels, markers, 6); }),
            Chunk("cue ", U32(4) + CuePoint(0, 100, 600, 100) + CuePoint(1, 200, 1200, 200) +
                              CuePoint(2, 200, 1200, 300) + CuePoint(3, 200, 1200, 50)) +
                List("adtl", Label(0, "first") + Label(1, "") + Region(2, 100, "region") +
                                 Region(3, 0xFFFFFFE2, "backward")));
}

TEST(WavLayout, KeepsTheLowBitsOfPositionsThatNeedMore) {
  constexpr std::int64_t kFar = 0x1'2345'6789;
  constexpr auto kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr auto kHighest = std::numeric_limits<std::int64_t>::max();
  const WavLabel labels[] = {{"far", kFar}, {"before", -1}};
  const WavMarker markers[] = {{"all", kLowest, kHighest}};
  EXPECT_EQ(Written([&](RiffChunkWriter& file) { WriteCuesAndRegions(file, labels, markers, 4); }),
            Chunk("cue ", U32(3) + CuePoint(0, 0x23456789, 0x8D159E24, 0x23456789) +
                              CuePoint(1, 0xFFFFFFFF, 0xFFFFFFFC, 0xFFFFFFFF) +
                              CuePoint(2, 0xFFFFFFFF, 0xFFFFFFFC, 0)) +
                List("adtl", Label(0, "far") + Label(1, "before") + Region(2, 0xFFFFFFFF, "all")));
}

// The example of docs/wav-layout.md, line by line.
TEST(WavLayout, WritesTheBytesOfTheWorkedExample) {
  WavAnnotations all;
  all.labels = {{"In", 1}};
  all.markers = {{"Hit", 2, 3}};
  all.meta_data.title = "Snap";
  all.meta_data.year = "2009";
  all.acid = WavAcidData{60, 4, 4, 2, 120.0F};
  const WavFormat format{44100, 1, 8, false};
  const unsigned char samples[] = {0x80, 0xC0, 0x01};
  EXPECT_EQ(Written([&](RiffChunkWriter& file) {
              BeginWav(file, PlainFormatBody(format).bytes());
              file.Write(std::as_bytes(std::span(samples)));
              file.EndChunk();
              WriteAnnotations(file, all, format.BlockAlign());
            }),
            Hex("524946461401000057415645"
                "666D7420100000000100010044AC000044AC0000"
                "01000800"
                "646174610400000080C00100"
                "637565203400000002000000"
                "00000000010000006461746100000000"
                "0100000001000000"
                "01000000010000006461746100000000"
                "0100000002000000"
                "4C495354340000006164746C"
                "6C61626C0800000000000000496E0000"
                "6C747874180000000100000001000000"
                "72676E20000000000000000048697400"
                "4C4953544C000000494E464F"
                "494E414D08000000536E617000000000"
                "494152540400000000000000"
                "49474E520400000000000000"
                "495052440400000000000000"
                "494352440C000000323030392D30312D30310000"
                "61636964180000003C0000000000000000000000"
                "02000000040004000000F042"));
}

}  // namespace
}  // namespace marlinda::testing
