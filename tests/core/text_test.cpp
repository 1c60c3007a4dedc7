#include "core/text.h"

#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

std::wstring AsUtf16(const std::string& ansi) {
  const OwnedBstr text(ToBstr(ansi));
  return {text.get(), SysStringLen(text.get())};
}

TEST(Text, IsKeptWhereTheCodePageHoldsItAndEndsAtTheFirstNul) {
  for (const std::wstring& text : {std::wstring(L"C:\\take 1.wav"), std::wstring(100000, L'x')}) {
    EXPECT_EQ(AsUtf16(ToAnsi(Bstr(text))), text);
  }
  const std::wstring lossy = AsUtf16(ToAnsi(Bstr(L"a\x97f3z")));
  EXPECT_EQ(lossy.front(), L'a');
  EXPECT_EQ(lossy.back(), L'z');
  EXPECT_EQ(ToAnsi(nullptr), "");
  const OwnedBstr with_nul(SysAllocStringLen(L"ab\0cd", 5));
  EXPECT_EQ(ToAnsi(with_nul.get()), "ab");
  // An empty text is an empty string and not a null one.
  const OwnedBstr empty(ToBstr({}));
  ASSERT_NE(empty.get(), nullptr);
  EXPECT_EQ(SysStringLen(empty.get()), 0U);
}

TEST(Text, ReplacesEveryPlaceHolderOnce) {
  EXPECT_EQ(Format("(%s)|%s|", "*.wav;*.ogg"), "(*.wav;*.ogg)|*.wav;*.ogg|");
  EXPECT_EQ(Format("%s%s", "%s"), "%s%s");
  EXPECT_EQ(Format("100%", "x"), "100%");
  EXPECT_EQ(Format("%d kbit", 64), "64 kbit");
}

TEST(Text, ConvertsUtf8AndKeepsTextThatIsNone) {
  EXPECT_EQ(AsUtf16(Utf8ToAnsi("Caf\xC3\xA9")), L"Caf\u00E9");
  EXPECT_EQ(Utf8ToAnsi(""), "");
  EXPECT_EQ(Utf8ToAnsi("Caf\xE9"), "Caf\xE9");
  EXPECT_EQ(Utf8ToAnsi("\xC3"), "\xC3");
}

}  // namespace
}  // namespace marlinda::testing
