// Text between UTF-8, the code page and BSTRs, with characters that every Western code page and UTF-8
// hold.
#include "core/text.h"

#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

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
