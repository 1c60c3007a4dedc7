#include "core/wave_format.h"

#include <gtest/gtest.h>

#include <cstring>

namespace marlinda::testing {
namespace {

WAVEFORMATEX Format(WORD channels, WORD bits) {
  WAVEFORMATEX format = {};
  format.wFormatTag = 0x1234;
  format.nChannels = channels;
  format.nSamplesPerSec = 0x89ABCDEF;
  format.nAvgBytesPerSec = 0x12345678;
  format.nBlockAlign = 0xBEEF;
  format.wBitsPerSample = bits;
  format.cbSize = 99;
  return format;
}

TEST(MakeExtensibleFormat, HasTheLayoutOfTheExtensibleFormatByteForByte) {
  const WAVEFORMATEXTENSIBLE format = MakeExtensibleFormat(Format(6, 24), false, false);
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
}

TEST(MakeExtensibleFormat, NamesFloatAndPcmByTheirSubtypes) {
  const auto subtype = [](bool is_float) {
    return MakeExtensibleFormat(Format(2, 32), is_float, true).SubFormat;
  };
  // {00000003-0000-0010-8000-00AA00389B71} and {00000001-...}
  GUID expected = {3, 0, 0x10, {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}};
  EXPECT_TRUE(IsEqualGUID(subtype(true), expected));
  expected.Data1 = 1;
  EXPECT_TRUE(IsEqualGUID(subtype(false), expected));
}

TEST(MakeExtensibleFormat, HasAMaskForOneTwoSixAndEightChannelsOnly) {
  for (int channels = 0; channels <= 0xFFFF;
       channels = channels < 32 ? channels + 1 : channels * 2 + 1) {
    SCOPED_TRACE(channels);
    DWORD mask = 0;
    if (channels == 2) mask = 0x3;
    if (channels == 6) mask = 0x3F;
    if (channels == 8) mask = 0xFF;
    const WAVEFORMATEX source = Format(static_cast<WORD>(channels), 16);
    EXPECT_EQ(MakeExtensibleFormat(source, false, false).dwChannelMask, channels == 1 ? 4U : mask);
    EXPECT_EQ(MakeExtensibleFormat(source, false, true).dwChannelMask, channels == 1 ? 3U : mask);
  }
}

}  // namespace
}  // namespace marlinda::testing
