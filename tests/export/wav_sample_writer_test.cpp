#include "export/wav_sample_writer.h"

#include <gtest/gtest.h>

#include "tests/export/memory_sink.h"

namespace marlinda::testing {
namespace {

using namespace riff;

// The file bytes of blocks written one after the other.
Bytes Written(const WavFormat& format, const std::vector<std::vector<float>>& blocks) {
  MemoryFile file;
  RiffChunkWriter writer;
  writer.Attach(std::make_unique<MemorySink>(file));
  WavSampleWriter samples(format);
  for (const auto& block : blocks) samples.Write(writer, block, block.size() / format.channels);
  return file.All();
}

TEST(WavSampleWriter, ConvertsToTheWidthsThatFilesHave) {
  const std::vector<std::vector<float>> blocks = {{0.0F, -1.0F}, {0.5F, 1.0F}};
  EXPECT_EQ(Written({8000, 2, 8, false}, blocks), (Bytes{128, 1, 192, 255}));
  EXPECT_EQ(Written({8000, 2, 16, false}, blocks),
            U16(0) + U16(0x8001) + U16(0x4000) + U16(0x7FFF));
  // Full scale wraps to the most negative code at 24 and 32 bits.
  EXPECT_EQ(Written({8000, 2, 24, false}, blocks),
            Integer(0, 3) + Integer(0x800000, 3) + Integer(0x400000, 3) + Integer(0x800000, 3));
  EXPECT_EQ(Written({8000, 2, 32, false}, blocks),
            U32(0) + U32(0x80000000) + U32(0x40000000) + U32(0x80000000));
}

TEST(WavSampleWriter, WritesFloatsAsTheyAre) {
  EXPECT_EQ(Written({8000, 1, 32, true}, {{0.25F, 2.0F}, {-0.0F}}),
            F32(0.25F) + F32(2) + F32(-0.0F));
}

TEST(WavSampleWriter, KeepsTheFirstHalfOfFloatsAnnouncedWithSixteenBits) {
  EXPECT_EQ(Written({8000, 2, 16, true}, {{0.25F, -0.5F}, {1.0F, 3.0F, 0.125F, 7.0F}}),
            F32(0.25F) + F32(1.0F) + F32(3.0F));
}

TEST(WavSampleWriter, FillsTheAnnouncedSizeForWidthsThatNoFileShouldHave) {
  // 12 bits convert to 16 but count as one byte a sample.
  EXPECT_EQ(Written({8000, 1, 12, false}, {{0.0F, 0.5F, 1.0F, -1.0F}}), U16(0) + U16(0x4000));
  // 40 bits convert to 32 but count as five bytes a sample.
  EXPECT_EQ(Written({8000, 1, 40, false}, {{0.5F, -1.0F}, {0.25F}}),
            U32(0x40000000) + U32(0x80000000) + Bytes(2) + U32(0x20000000) + Bytes(1));
  EXPECT_EQ(Written({8000, 1, 64, true}, {{0.5F}}), F32(0.5F) + Bytes(4));
  for (const std::int16_t bits : {0, 7, -7, -8, -32768}) {
    EXPECT_EQ(Written({8000, 1, bits, false}, {{0.5F, 0.5F}}), Bytes{}) << bits;
    EXPECT_EQ(Written({8000, 1, bits, true}, {{0.5F, 0.5F}}), Bytes{}) << bits;
  }
  EXPECT_EQ(Written({8000, 1, 32767, false}, {{0.5F}}).size(), 4095U);
  // More padding than one write of zeros holds.
  EXPECT_EQ(Written({8000, 40, 32767, false}, {std::vector<float>(40, 0.5F)}).size(), 40U * 4095);
}

TEST(WavSampleWriter, FillsUpABlockThatHoldsFewerSamplesThanItsFrames) {
  MemoryFile file;
  RiffChunkWriter writer;
  writer.Attach(std::make_unique<MemorySink>(file));
  WavSampleWriter samples({8000, 2, 16, false});
  const float one[] = {0.5F};
  samples.Write(writer, one, 2);
  EXPECT_EQ(file.All(), U16(0x4000) + Bytes(6));
}

}  // namespace
}  // namespace marlinda::testing
