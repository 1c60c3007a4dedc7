#include "core/text.h"

#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

std::wstring RoundTrip(const std::wstring& text) {
  const Bstr given(text);
  const BSTR back = ToBstr(ToAnsi(given));
  const std::wstring result(back, SysStringLen(back));
  SysFreeString(back);
  return result;
}

TEST(Text, ComesBackAsItWasWhereTheCodePageHoldsIt) {
  EXPECT_EQ(RoundTrip(L""), L"");
  EXPECT_EQ(RoundTrip(L"C:\\Audio\\take 1.wav"), L"C:\\Audio\\take 1.wav");
  const std::wstring german = L"\x00e4\x00f6\x00fc\x00df";
  if (GetACP() == 1252 || GetACP() == CP_UTF8) {
    EXPECT_EQ(RoundTrip(german), german);
  }
  const std::wstring long_text(100000, L'x');
  EXPECT_EQ(RoundTrip(long_text), long_text);
}

TEST(Text, LosesOnlyWhatTheCodePageCannotHold) {
  const std::wstring result = RoundTrip(L"a\x97f3z");
  EXPECT_EQ(result.front(), L'a');
  EXPECT_EQ(result.back(), L'z');
}

TEST(Text, TakesANullStringAsEmptyAndEndsAtTheFirstNul) {
  EXPECT_EQ(ToAnsi(nullptr), "");
  const BSTR with_nul = SysAllocStringLen(L"ab\0cd", 5);
  EXPECT_EQ(ToAnsi(with_nul), "ab");
  SysFreeString(with_nul);
}

TEST(Text, MakesABstrOfEveryLength) {
  // An empty text is an empty string, not a null one: callers measure and free it.
  const BSTR empty = ToBstr({});
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(SysStringLen(empty), 0U);
  SysFreeString(empty);
  const BSTR part = ToBstr(std::string_view("abcdef").substr(1, 3));
  EXPECT_STREQ(part, L"bcd");
  SysFreeString(part);
}

TEST(Text, PutsTheArgumentInEveryPlace) {
  EXPECT_EQ(Format("Loading %s", "a.ogg"), "Loading a.ogg");
  EXPECT_EQ(Format("(%s)|%s|", "*.wav;*.ogg"), "(*.wav;*.ogg)|*.wav;*.ogg|");
  // What the argument holds is not read as a pattern.
  EXPECT_EQ(Format("%s%s", "%s"), "%s%s");
  EXPECT_EQ(Format("100%", "x"), "100%");
  EXPECT_EQ(Format("", "x"), "");
}

std::wstring AsUtf16(const std::string& ansi) {
  Bstr text;
  *text.Receive() = ToBstr(ansi);
  return text.str();
}

TEST(Text, Utf8ReachesABstrAsTheSameCharacters) {
  EXPECT_EQ(AsUtf16(Utf8ToAnsi("Caf\xC3\xA9")), L"Caf\u00E9");
  EXPECT_EQ(AsUtf16(Utf8ToAnsi("")), L"");
  EXPECT_EQ(ToAnsi(Bstr(L"plain")), Utf8ToAnsi("plain"));
}

TEST(Text, WhatIsNoUtf8IsTakenForTheCodePage) {
  EXPECT_EQ(Utf8ToAnsi("Caf\xE9"), "Caf\xE9");
  EXPECT_EQ(Utf8ToAnsi("\xC3"), "\xC3");
}

}  // namespace
}  // namespace marlinda::testing
