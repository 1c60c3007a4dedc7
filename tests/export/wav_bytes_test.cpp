// The bytes of WAV files: headers, trailers and samples.
#include <gtest/gtest.h>

#include <limits>

#include "export/wav_layout.h"
#include "export/wav_sample_encoder.h"
#include "tests/export/riff_builder.h"

namespace marlinda::testing {
namespace {

using namespace riff;

Bytes ToBytes(std::span<const std::byte> bytes) {
  Bytes result;
  for (const std::byte byte : bytes) result.push_back(std::to_integer<unsigned char>(byte));
  return result;
}
Bytes Trailer(const WavAnnotations& all, std::int32_t block_align) {
  return ToBytes(WavTrailer(all, block_align).bytes());
}

TEST(WavBytes, TellTheFormatInTheWayOfItsChannels) {
  const auto expect = [](const WavFormat& format, ManyChannels way, const Bytes& bytes) {
    EXPECT_EQ(ToBytes(WavHeader(format, way).bytes()),
              Text("RIFF") + U32(0) + Text("WAVE") + Chunk("fmt ", bytes) + Text("data") + U32(0));
  };
  for (const auto way : {ManyChannels::kPlain, ManyChannels::kExtensible}) {
    // Whole bytes only, and a width that fills none gives a block align of 0.
    expect({8000, 2, 12, false}, way, PlainFormat(1, 2, 8000, 1, 12));
    expect({8000, 2, 7, false}, way, PlainFormat(1, 2, 8000, 0, 7));
    // Fields hold the low bits of absurd values.
    expect({-1, -2, -8, false}, way,
           U16(1) + U16(0xFFFE) + U32(0xFFFFFFFF) + U32(0xFFFFFFFE) + U16(2) + U16(0xFFF8));
  }
  expect({48000, 5, 16, false}, ManyChannels::kExtensible, ExtensibleFormat(1, 5, 48000, 2, 16, 0));
  expect({48000, 5, 16, false}, ManyChannels::kPlain, PlainFormat(1, 5, 48000, 2, 16));
}

TEST(WavBytes, CarryTheLastLabelsPositionIntoTheMarkersAndKeepLowBits) {
  EXPECT_EQ(Trailer({.labels = {{100, "first"}, {200, ""}},
                     .markers = {{{300, 400}, "region"}, {{50, 20}, "backward"}}},
                    6),
            Chunk("cue ", U32(4) + CuePoint(0, 100, 600, 100) + CuePoint(1, 200, 1200, 200) +
                              CuePoint(2, 200, 1200, 300) + CuePoint(3, 200, 1200, 50)) +
                List("adtl", Label(0, "first") + Label(1, "") + Region(2, 100, "region") +
                                 Region(3, 0xFFFFFFE2, "backward")) +
                Info());
  EXPECT_EQ(Trailer({.labels = {{0x1'2345'6789, "far"}, {-1, "before"}}}, 4),
            Chunk("cue ", U32(2) + CuePoint(0, 0x23456789, 0x8D159E24, 0x23456789) +
                              CuePoint(1, 0xFFFFFFFF, 0xFFFFFFFC, 0xFFFFFFFF)) +
                List("adtl", Label(0, "far") + Label(1, "before")) + Info());
  EXPECT_EQ(Trailer({.markers = {{{5, 9}, ""}}, .acid = AcidData{60, 4, 3, 2, 120.0F}}, 2),
            Chunk("cue ", U32(1) + CuePoint(0, 0, 0, 5)) + List("adtl", Region(0, 4, "")) + Info() +
                Chunk("acid", U32(60) + U32(0) + U32(0) + U32(2) + U16(4) + U16(3) + F32(120.0F)));
}

TEST(WavBytes, OfSamplesFillWhatTheHeaderAnnounces) {
  const std::vector<float> four = {0.0F, -1.0F, 0.5F, 1.0F};
  const std::tuple<WavFormat, std::vector<float>, Bytes> cases[] = {
      // Full scale wraps to the most negative code at 24 and 32 bits.
      {{8000, 2, 24, false},
       four,
       Integer(0, 3) + Integer(0x800000, 3) + Integer(0x400000, 3) + Integer(0x800000, 3)},
      // Floats announced with 16 bits keep their first half.
      {{8000, 2, 16, true}, {1.0F, 3.0F, 0.125F, 7.0F}, F32(1.0F) + F32(3.0F)},
      // 12 bits convert to 16 but count as one byte a sample, 40 bits to 32 but as five.
      {{8000, 1, 12, false}, four, U16(0) + U16(0x8001)},
      {{8000, 1, 40, false}, {0.5F, -1.0F}, U32(0x40000000) + U32(0x80000000) + Bytes(2)},
      {{8000, 1, 64, true}, {0.5F}, F32(0.5F) + Bytes(4)},
      {{8000, 1, 7, false}, four, {}},
  };
  for (const auto& [format, samples, expected] : cases) {
    WavSampleEncoder encoder(format);
    const std::size_t frames = samples.size() / format.channels;
    // The bytes of an earlier, longer block do not show.
    encoder.Encode(std::vector<float>(2 * samples.size(), 0.75F), 2 * frames);
    EXPECT_EQ(ToBytes(encoder.Encode(samples, frames)), expected) << format.bits;
  }
  // A block with fewer samples than its frames, and one that no memory holds.
  const std::vector<float> one = {0.5F};
  EXPECT_EQ(ToBytes(WavSampleEncoder({8000, 2, 16, false}).Encode(one, 2)), U16(0x4000) + Bytes(6));
  EXPECT_THROW(WavSampleEncoder({8000, 32767, 32767, false})
                   .Encode(one, std::numeric_limits<std::size_t>::max()),
               std::bad_alloc);
}

}  // namespace
}  // namespace marlinda::testing
