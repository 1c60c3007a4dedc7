#include "core/wave_format.h"

#include <gtest/gtest.h>

#include <cstring>

namespace marlinda::testing {
namespace {

TEST(MakeExtensibleFormat, HasTheLayoutOfTheExtensibleFormatByteForByte) {
  WAVEFORMATEX source = {0x1234, 6, 0x89ABCDEF, 0x12345678, 0xBEEF, 24, 99};
  const WAVEFORMATEXTENSIBLE format = MakeExtensibleFormat(source, false, false);
  const unsigned char expected[40] = {
      0xFE, 0xFF,              // tag
      6,    0,                 // channels
      0xEF, 0xCD, 0xAB, 0x89,  // samples per second
      0x78, 0x56, 0x34, 0x12,  // bytes per second
      0xEF, 0xBE,              // block align
      24,   0,                 // bits
      22,   0,                 // size of what follows
      24,   0,                 // valid bits
      0x3F, 0,    0,    0,     // channel mask
      1,    0,    0,    0,    0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71,  // PCM
  };
  ASSERT_EQ(sizeof format, sizeof expected);
  EXPECT_EQ(std::memcmp(&format, expected, sizeof expected), 0);
  EXPECT_EQ(MakeExtensibleFormat(source, true, false).SubFormat.Data1, 3U) << "floats";

  for (int channels = 0; channels <= 0xFFFF; ++channels) {
    source.nChannels = static_cast<WORD>(channels);
    const DWORD mask = channels == 2 ? 0x3 : channels == 6 ? 0x3F : channels == 8 ? 0xFF : 0;
    ASSERT_EQ(MakeExtensibleFormat(source, false, false).dwChannelMask, channels == 1 ? 4U : mask);
    ASSERT_EQ(MakeExtensibleFormat(source, false, true).dwChannelMask, channels == 1 ? 3U : mask);
  }
}

}  // namespace
}  // namespace marlinda::testing
