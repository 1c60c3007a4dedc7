// Texts, arrays, formats and registry values of Windows as the engine uses them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "core/registry.h"
#include "core/sample_array.h"
#include "device/device_format.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

TEST(Text, IsKeptWhereTheCodePageHoldsItAndEndsAtTheFirstNul) {
  const auto as_utf16 = [](const std::string& ansi) {
    const OwnedBstr text(ToBstr(ansi));
    return std::wstring(text.get(), SysStringLen(text.get()));
  };
  const std::wstring text(100000, L'x');
  EXPECT_EQ(as_utf16(ToAnsi(Bstr(text))), text);
  EXPECT_THAT(ToAnsi(Bstr(L"a\x97f3z")), ::testing::MatchesRegex("a.+z"));
  EXPECT_EQ(ToAnsi(nullptr), "");
  const OwnedBstr with_nul(SysAllocStringLen(L"ab\0cd", 5));
  EXPECT_EQ(ToAnsi(with_nul.get()), "ab");
  EXPECT_TRUE(OwnedBstr(ToBstr({}))) << "an empty text is not a null one";
  EXPECT_EQ(as_utf16(Utf8ToAnsi("Caf\xC3\xA9")), L"Caf\u00E9");
  for (const char* plain : {"", "Caf\xE9", "\xC3"}) EXPECT_EQ(Utf8ToAnsi(plain), plain);
  EXPECT_EQ(Format("(%s)|%s|", "%s;"), "(%s;)|%s;|") << "each place holder is replaced once";
  EXPECT_EQ(Format("%d kbit", 64), "64 kbit");
}

TEST(SampleArray, LocksADescriptorWithoutATypeOnceAndUnlocksIt) {
  float samples[3] = {1, 2, 3};
  SAFEARRAY array = {1, FADF_AUTO | FADF_FIXEDSIZE, sizeof(float), 0, samples, {{3, 5}}};
  {
    SampleArrayView view;
    ASSERT_EQ(view.Lock(&array), S_OK);
    EXPECT_TRUE(std::ranges::equal(view.samples(), samples));
    EXPECT_EQ(view.Lock(&array), E_UNEXPECTED);
    EXPECT_EQ(array.cLocks, 1U);
  }
  EXPECT_EQ(array.cLocks, 0U);
  array.cbElements = 8;
  EXPECT_EQ(SampleArrayView().Lock(&array), E_INVALIDARG);
}

TEST(SampleArray, KeepsItsSamplesWhenResized) {
  EXPECT_THROW(SampleArray(std::size_t{1} << 30), std::bad_alloc);
  SampleArray array(4);
  std::ranges::fill(array.samples(), 0.5F);
  array.Resize(100000);
  EXPECT_EQ(std::ranges::count(array.samples(), 0.5F), 4);
  EXPECT_EQ(std::ranges::count(array.samples(), 0.0F), 99996);
  EXPECT_THROW(array.Resize(std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
  array.Resize(2);
  EXPECT_EQ(array.samples().size(), 2U);
  EXPECT_THAT(std::vector(array.samples().begin(), array.samples().end()),
              ::testing::ElementsAre(0.5F, 0.5F));
  SAFEARRAYBOUND bound = {9, 0};
  EXPECT_EQ(SafeArrayRedim(array.get(), &bound), DISP_E_ARRAYISLOCKED);
  array.Prepare(3);
  EXPECT_EQ(std::ranges::count(array.samples(), 0.0F), 3);
}

TEST(MakeExtensibleFormat, HasTheLayoutOfTheExtensibleFormatByteForByte) {
  WAVEFORMATEX source = {0x1234, 6, 0x89ABCDEF, 0x12345678, 0xBEEF, 24, 99};
  const WAVEFORMATEXTENSIBLE format = MakeExtensibleFormat(source, false, false);
  // Tag, channels, frames and bytes per second, bytes per frame, bits, size of the rest; valid
  // bits, channel mask, PCM.
  const unsigned char expected[40] = {0xFE, 0xFF, 6,    0,    0xEF, 0xCD, 0xAB, 0x89, 0x78, 0x56,
                                      0x34, 0x12, 0xEF, 0xBE, 24,   0,    22,   0,    24,   0,
                                      0x3F, 0,    0,    0,    1,    0,    0,    0,    0,    0,
                                      0x10, 0,    0x80, 0,    0,    0xAA, 0,    0x38, 0x9B, 0x71};
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&format);
  EXPECT_THAT(std::vector<int>(bytes, bytes + sizeof format),
              ::testing::ElementsAreArray(expected));
  EXPECT_EQ(MakeExtensibleFormat(source, true, false).SubFormat.Data1, 3U) << "floats";
  const DWORD masks[] = {0, 4, 3, 0, 0, 0, 0x3F, 0, 0xFF, 0};
  for (WORD channels = 0; channels < std::size(masks); ++channels) {
    source.nChannels = channels;
    EXPECT_EQ(MakeExtensibleFormat(source, false, false).dwChannelMask, masks[channels]);
    EXPECT_EQ(MakeExtensibleFormat(source, false, true).dwChannelMask,
              channels == 1 ? 3U : masks[channels]);
  }
}

class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    TearDown();
    ASSERT_EQ(registry_.Open(HKEY_CURRENT_USER, kKey, false), 0);
  }
  void TearDown() override { RegDeleteTreeA(HKEY_CURRENT_USER, kKey); }

  static void Store(const std::string& name, DWORD type, const std::string& bytes) {
    ASSERT_EQ(RegSetKeyValueA(HKEY_CURRENT_USER, kKey, name.c_str(), type, bytes.data(),
                              static_cast<DWORD>(bytes.size())),
              0);
  }
  // As the system's own tools store a text: with its terminator.
  static void StoreText(const std::string& name, const std::string& text) {
    Store(name, REG_SZ, text + '\0');
  }

  static constexpr char kKey[] = "Software\\TessalyRegistryTest";
  CRegistry registry_;
};

TEST_F(Registry, GivesTheDefaultForAValueThatIsMissingOrTooLong) {
  EXPECT_EQ(registry_.ReadDword("Number", 42), 42U);
  registry_.WriteDword("Number", 0xFFFFFFFEU);
  EXPECT_EQ(registry_.ReadDword("Number", 42), 0xFFFFFFFEU);
  Store("Number", REG_QWORD, std::string(8, '\1'));
  EXPECT_EQ(registry_.ReadDword("Number", 42), 42U);
  EXPECT_EQ(registry_.ReadString("Text", "default"), "default");
  Store("Text", REG_SZ, std::string("ab\0cd", 5));
  EXPECT_EQ(registry_.ReadString("Text", "default"), "ab");
  StoreText("Text", std::string(254, 'x'));
  EXPECT_EQ(registry_.ReadString("Text", "default"), std::string(254, 'x'));
  StoreText("Text", std::string(255, 'x'));
  EXPECT_EQ(registry_.ReadString("Text", "default"), "default");
  EXPECT_EQ(registry_.Open(HKEY_CURRENT_USER, kKey, true), ERROR_SUCCESS);
  registry_.WriteDword("Fresh", 7);
  EXPECT_EQ(registry_.ReadDword("Fresh", 1), 1U) << "a key opened for reading was written";
}

}  // namespace
}  // namespace marlinda::testing
