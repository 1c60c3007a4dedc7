#include "core/registration/registration_script.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <tuple>

namespace marlinda {
namespace {

// A script's tree as one line, so that a test states in full what a text means.
std::string Narrow(const std::wstring& text) {
  std::string narrow;
  for (const wchar_t c : text) narrow += static_cast<char>(c);
  return narrow;
}

std::string Describe(const RegistryScriptKey& key) {
  static const char* const kMarks[] = {"", "keep ", "force ", "delete "};
  std::string text = kMarks[static_cast<int>(key.mark)] + ("[" + Narrow(key.name) + "]");
  for (const RegistryScriptValue& value : key.values) {
    text += std::string(value.no_remove ? " keep " : " ") + Narrow(value.name) + "=";
    const auto* number = std::get_if<std::uint32_t>(&value.data);
    text += number != nullptr ? "#" + std::to_string(*number)
                              : "'" + Narrow(std::get<std::wstring>(value.data)) + "'";
  }
  for (const RegistryScriptKey& child : key.keys) text += " (" + Describe(child) + ")";
  return text;
}

std::string Describe(std::wstring_view text, const RegistryReplacements& replacements = {}) {
  static const char* const kHives[] = {"HKCR", "HKCU", "HKLM"};
  std::string described;
  for (const RegistryScriptRoot& root : ParseRegistryScript(text, replacements)) {
    described += kHives[static_cast<int>(root.hive)];
    for (const RegistryScriptKey& key : root.keys) described += " (" + Describe(key) + ")";
    described += ";";
  }
  return described;
}

// Where and why a text is refused: "line:column reason".
std::string Refusal(std::wstring_view text, const RegistryReplacements& replacements = {}) {
  try {
    ParseRegistryScript(text, replacements);
  } catch (const RegistryScriptError& error) {
    const std::string what = error.what();
    return std::to_string(error.line()) + ":" + std::to_string(error.column()) +
           what.substr(what.find(": ") + 1);
  }
  return "accepted";
}

TEST(RegistrationScript, GivesKeysValuesAndMarksInTheOrderOfTheText) {
  EXPECT_EQ(Describe(L""), "");
  EXPECT_EQ(Describe(L"HKCR{}"), "HKCR;");
  EXPECT_EQ(Describe(L"HKCR\n{\n  NoRemove AppID\n  {\n    '{1}' = s 'Tessaly'\n"
                     L"    'Tessaly.EXE'\n    {\n      val AppID = s '{1}'\n    }\n  }\n}\n"),
            "HKCR (keep [AppID] ([{1}] ='Tessaly') ([Tessaly.EXE] AppID='{1}'));");
  EXPECT_EQ(Describe(L"HKLM{A=s 'x'{val n=d 7 B{C}} ForceRemove D Delete E}\tHKCU{F}"),
            "HKLM ([A] ='x' n=#7 ([B] ([C]))) (force [D]) (delete [E]);HKCU ([F]);");
  EXPECT_EQ(Describe(L"hkey_classes_root { noremove a { NOREMOVE VAL b = S c } }"),
            "HKCR (keep [a] keep b='c');");
}

TEST(RegistrationScript, ReadsQuotesNumbersAndQuotedKeywordsForWhatTheyAre) {
  EXPECT_EQ(Describe(L"HKCR{'it''s {a} = key' = s ''''}"), "HKCR ([it's {a} = key] =''');");
  EXPECT_EQ(Describe(L"HKCR{a=s ''}"), "HKCR ([a] ='');");
  EXPECT_EQ(Describe(L"HKCR{'NoRemove' 'val' 'Delete'{val 'val' = s s}}"),
            "HKCR ([NoRemove]) ([val]) ([Delete] val='s');");
  EXPECT_EQ(Describe(L"HKCR{a{val b=d 0 val c=d 4294967295 val d=d 0xfFfFfFfF val e=d '0X10'}}"),
            "HKCR ([a] b=#0 c=#4294967295 d=#4294967295 e=#16);");
  EXPECT_EQ(Describe(std::wstring(L"\xFEFF") + L"HKCR{a}"), "HKCR ([a]);");
}

TEST(RegistrationScript, NeverReadsAReplacementAsScript) {
  const RegistryReplacements replacements = {
      {L"MODULE", L"C:\\it's } here' = s {%MODULE%}\\T.dll"}, {L"KEYWORD", L"val"}, {L"NONE", L""}};
  EXPECT_EQ(Describe(L"HKCR{a=s '%MODULE%' b=s %MODULE% c=s '<%NONE%%%%NONE%>'}", replacements),
            "HKCR ([a] ='C:\\it's } here' = s {%MODULE%}\\T.dll')"
            " ([b] ='C:\\it's } here' = s {%MODULE%}\\T.dll') ([c] ='<%>');");
  EXPECT_EQ(Describe(L"HKCR{%KEYWORD% x%KEYWORD%}", replacements), "HKCR ([val]) ([xval]);");
  EXPECT_EQ(Refusal(L"HKCR{%MODULE%}", replacements), "1:6 a backslash in the name of a key");
  EXPECT_EQ(Refusal(L"HKCR{%NONE%}", replacements), "1:6 the name of a key is empty");
}

TEST(RegistrationScript, NamesLineColumnAndReasonOfEveryMistake) {
  const std::wstring nul(1, L'\0');
  const std::wstring long_key(256, L'k');
  const std::wstring long_value(16384, L'v');
  const std::vector<std::tuple<std::wstring, std::string>> cases = {
      {L"AppID {}", "1:1 a root is expected: HKCR, HKCU or HKLM"},
      {L"{", "1:1 a root is expected: HKCR, HKCU or HKLM"},
      {L"'HKCR'{}", "1:1 a root is expected: HKCR, HKCU or HKLM"},
      {L"HKCR{}}", "1:7 a root is expected: HKCR, HKCU or HKLM"},
      {L"HKCR", "1:5 { is expected after the root"},
      {L"HKCR a", "1:6 { is expected after the root"},
      {L"HKCR\n  {\n a {\n }", "2:3 this brace is not closed"},
      {L"HKCR{a{", "1:7 this brace is not closed"},
      {L"HKCR{val x = s 'y'}", "1:6 a value needs a key to stand in"},
      {L"HKCR{{1}}", "1:6 the name of a key is expected; one with braces or = goes in quotes"},
      {L"HKCR{NoRemove}",
       "1:14 the name of a key is expected; one with braces or = goes in quotes"},
      {L"HKCR{=s 'x'}", "1:6 the name of a key is expected; one with braces or = goes in quotes"},
      {L"HKCR{''}", "1:6 the name of a key is empty"},
      {L"HKCR{a\\b}", "1:6 a backslash in the name of a key"},
      {L"HKCR{" + long_key + L"}", "1:6 the name of a key is too long"},
      {L"HKCR{a={}}", "1:8 the type of a value is expected: s for a text, d for a number"},
      {L"HKCR{a='s' x}", "1:8 the type of a value is expected: s for a text, d for a number"},
      {L"HKCR{a=b 00}", "1:8 the type of a value is expected: s for a text, d for a number"},
      {L"HKCR{a=s}", "1:9 the data of a value is expected"},
      {L"HKCR{a=s", "1:9 the data of a value is expected"},
      {L"HKCR{a{val}}", "1:11 the name of a value is expected"},
      {L"HKCR{a{val '' = s x}}", "1:12 the name of a value is empty"},
      {L"HKCR{a{val " + long_value + L"=d 1}}", "1:12 the name of a value is too long"},
      {L"HKCR{a{val b s x}}", "1:14 = is expected after the value"},
      {L"HKCR{a{ForceRemove val b=s x}}", "1:8 a value takes no mark but NoRemove"},
      {L"HKCR{Delete a = s x}", "1:15 a key that is deleted has no content"},
      {L"HKCR{Delete a{}}", "1:14 a key that is deleted has no content"},
      {L"HKCR{'a\n'}", "1:6 this quoted text does not end on its line"},
      {L"HKCR{a=s 'b''", "1:10 this quoted text does not end on its line"},
      {L"HKCR{a'b'}", "1:7 a quote inside a bare word"},
      {L"HKCR{a=s '%b c%'}", "1:11 a replacement is written %NAME%, a percent sign %%"},
      {L"HKCR{a=s '50%'}", "1:13 a replacement is written %NAME%, a percent sign %%"},
      {L"HKCR{a=s 50%", "1:12 a replacement is written %NAME%, a percent sign %%"},
      {L"HKCR{a=s '\t%NEVER%'}", "1:12 unknown replacement %NEVER%"},
      {L"HKCR{a" + nul + L"}", "1:7 a NUL character"},
      {L"HKCR{a=s '" + nul + L"'}", "1:11 a NUL character"},
      {L"HKCR{%NUL%}", "1:6 a NUL character"},
  };
  for (const auto& [text, refusal] : cases) {
    EXPECT_EQ(Refusal(text, {{L"NUL", nul}}), refusal);
  }
  for (const wchar_t* number : {L"x", L"-1", L"0x", L"''", L"1a", L"4294967296", L"0x100000000",
                                L"99999999999999999999999999"}) {
    EXPECT_EQ(Refusal(std::wstring(L"HKCR{a=d ") + number + L"}"),
              "1:10 a number from 0 to 4294967295, decimal or 0x, is expected");
  }
}

TEST(RegistrationScript, BoundsTheNestingOfKeys) {
  const auto nested = [](int depth) {
    std::wstring text = L"HKCR";
    for (int key = 0; key < depth; ++key) text += L"{k";
    return text + std::wstring(static_cast<std::size_t>(depth), L'}');
  };
  EXPECT_EQ(Refusal(nested(kMaxRegistryScriptDepth)), "accepted");
  EXPECT_EQ(Refusal(nested(kMaxRegistryScriptDepth + 1)), "1:70 keys are nested too deeply");
  EXPECT_EQ(Refusal(nested(1'000'000)), "1:70 keys are nested too deeply");
}

TEST(RegistrationScript, SurvivesDamageAtEveryPlaceOfAScript) {
  const std::wstring script =
      L"HKCR { NoRemove 'A''s' = s '%M%' { val n = d 0x10 ForceRemove B { Delete C } } } HKLM { }";
  const RegistryReplacements replacements = {{L"M", L"'{}="}};
  ASSERT_EQ(Refusal(script, replacements), "accepted");
  int accepted = 0;
  for (std::size_t length = 0; length < script.size(); ++length) {
    // Exactly sized, so that a sanitizer sees a read past the end.
    const std::vector<wchar_t> cut(script.begin(),
                                   script.begin() + static_cast<std::ptrdiff_t>(length));
    if (Refusal({cut.data(), cut.size()}, replacements) == "accepted") ++accepted;
  }
  // The empty text, and the first root alone, without and with the space after it.
  EXPECT_EQ(accepted, 3);

  std::mt19937 random(20);
  const std::wstring alphabet = std::wstring(L"{}='% \n\\sdvalMABC019x\xFFFF") + L'\0';
  for (int round = 0; round < 20'000; ++round) {
    std::wstring damaged = script;
    for (int change = 0; change < 3; ++change) {
      damaged[random() % damaged.size()] = alphabet[random() % alphabet.size()];
    }
    try {
      ParseRegistryScript(damaged, replacements);
    } catch (const RegistryScriptError& error) {
      const auto lines = static_cast<std::size_t>(std::ranges::count(damaged, L'\n')) + 1;
      ASSERT_THAT(error.line(), ::testing::AllOf(::testing::Ge(1U), ::testing::Le(lines)));
      ASSERT_THAT(error.column(),
                  ::testing::AllOf(::testing::Ge(1U), ::testing::Le(damaged.size() + 1)));
    }
  }
}

}  // namespace
}  // namespace marlinda
