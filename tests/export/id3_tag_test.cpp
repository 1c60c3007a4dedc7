#include "export/id3_tag.h"

#include <gtest/gtest.h>

#include <string_view>

namespace marlinda {
namespace {

std::string Text(const std::vector<std::byte>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

TEST(Id3Tag, IsAbsentWithoutTexts) {
  EXPECT_TRUE(Id3v2Tag({}).empty());
  EXPECT_TRUE(Id3v1Tag({}).empty());
}

TEST(Id3Tag, WritesFramesOfLatin1AndOfUtf16) {
  using namespace std::string_literals;
  EXPECT_EQ(Text(Id3v2Tag({.artist = u"\u00C4", .year = u"2009-01-01", .genre = u"\u20AC"})),
            "ID3\3\0\0\0\0\0\x2A"s + "TPE1\0\0\0\2\0\0\0\xC4"s + "TYER\0\0\0\5\0\0\0"s + "2009" +
                "TCON\0\0\0\5\0\0\1\xFF\xFE\xAC\x20"s);
}

TEST(Id3Tag, CountsItsSizeInSevenBitsAByte) {
  const auto tag = Id3v2Tag({.title = std::u16string(300, u'x')});
  ASSERT_EQ(tag.size(), 10U + 10 + 301);
  EXPECT_EQ(Text(tag).substr(6, 4), std::string("\0\0\2\x37", 4));  // 2 * 128 + 55 = 311
}

TEST(Id3Tag, CutsTheOldTagToItsFields) {
  const auto tag = Text(Id3v1Tag({.title = std::u16string(40, u'x'), .album = u"a\u20ACb"}));
  ASSERT_EQ(tag.size(), 128U);
  EXPECT_EQ(tag.substr(0, 33), "TAG" + std::string(30, 'x'));
  EXPECT_EQ(tag.substr(33, 30), std::string(30, '\0'));
  EXPECT_EQ(tag.substr(63, 4), std::string("a?b\0", 4));
  EXPECT_EQ(tag.back(), '\xFF');
}

}  // namespace
}  // namespace marlinda
