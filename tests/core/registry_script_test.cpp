#include "core/registration/registry_script.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace marlinda {
namespace {

// Each key as its path and its values. A star marks a key that is not removed.
std::string Describe(std::string_view script) {
  std::wstring text;
  for (const RegistryScriptKey& key : ReadRegistryScript(script, {{"R", L"c:\\it's } %R%"}})) {
    text += (key.no_remove ? L"*" : L"") + key.path;
    for (const auto& [name, value] : key.values) text += L" " + name + L"=" + value;
    text += L"|";
  }
  return {text.begin(), text.end()};
}

TEST(RegistryScript, ListsKeysInOrderWithTheirValuesAndRefusesEveryOtherText) {
  const std::string script = "HKCR{NoRemove A=s 'x'{val B=s '1%R%2' C{'D E'}}}";
  EXPECT_EQ(Describe(script), "*A =x B=1c:\\it's } %R%2|A\\C|A\\C\\D E|");
  for (std::size_t length = 0; length < script.size(); ++length) {
    EXPECT_THROW(Describe(script.substr(0, length)), std::invalid_argument) << length;
  }
  for (const char* wrong : {"HKCU { }", "HKCR { A = d 1 }", "HKCR { A = s { }", "HKCR { = s x }",
                            "HKCR { '%R' }", "HKCR { '%Q%' }", "HKCR { } }"}) {
    EXPECT_THROW(Describe(wrong), std::invalid_argument) << wrong;
  }
}

}  // namespace
}  // namespace marlinda
