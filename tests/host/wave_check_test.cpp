#include "host/wave_check.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace marlinda {
namespace {

std::string Number(std::uint32_t value, int bytes = 4) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> 8 * i);
  return text;
}

std::string Chunk(const std::string& tag, const std::string& body) {
  return tag + Number(static_cast<std::uint32_t>(body.size())) + body;
}

std::string WaveFile(int channels, int bits, std::size_t data_bytes) {
  const int block_align = channels * bits / 8;
  const std::string format = Number(1, 2) + Number(channels, 2) + Number(8000) +
                             Number(8000 * block_align) + Number(block_align, 2) + Number(bits, 2);
  return Chunk("RIFF", "WAVE" + Chunk("fmt ", format) +
                           Chunk("data", std::string(data_bytes, 'x')) + Chunk("LIST", "INFO"));
}

std::optional<WaveFileFacts> Examine(const std::string& bytes) {
  std::istringstream file(bytes);
  return ExamineWaveFile(file);
}

TEST(WaveCheck, ComparesTheDataChunkWithItsFramesAndPadding) {
  const std::string bytes = WaveFile(1, 24, 8);
  const auto facts = Examine(bytes);
  ASSERT_TRUE(facts.has_value());
  EXPECT_EQ(facts->bytes, static_cast<std::int64_t>(bytes.size()));
  EXPECT_EQ(facts->data_bytes, 8);
  EXPECT_EQ(facts->block_align, 3);
  EXPECT_FALSE(HoldsFrames(*facts, 1));
  EXPECT_TRUE(HoldsFrames(*facts, 2));
  EXPECT_FALSE(HoldsFrames(*facts, 3));
}

TEST(WaveCheck, RefusesAFileCutOffAnywhereAndOneWithABrokenSize) {
  const std::string whole = WaveFile(2, 16, 40);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_FALSE(Examine(whole.substr(0, length)).has_value()) << length;
  }
  EXPECT_FALSE(Examine(whole + "x").has_value());
  // The low byte of each size, and the first letter of each tag.
  for (const std::size_t position : {0U, 4U, 8U, 12U, 16U, 36U, 40U}) {
    std::string broken = whole;
    broken[position] ^= 1;
    EXPECT_FALSE(Examine(broken).has_value()) << position;
  }
}

TEST(WaveCheck, KnowsWhatFitsIn32BitSizes) {
  EXPECT_TRUE(FitsWaveFile(std::int64_t{1} << 30, 1, 16));
  EXPECT_FALSE(FitsWaveFile(std::int64_t{1} << 30, 2, 16));
  EXPECT_FALSE(FitsWaveFile(std::int64_t{1} << 62, 32767, 32));
}

}  // namespace
}  // namespace marlinda
