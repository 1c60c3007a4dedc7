#include "core/registration/registry_script.h"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace marlinda {
namespace {

// One line for each key: its path, then its values. A star marks a key that is not removed.
std::string Describe(std::string_view script, const RegistryReplacements& replacements = {}) {
  std::wstring text;
  for (const RegistryScriptKey& key : ReadRegistryScript(script, replacements)) {
    text += (key.no_remove ? L"*" : L"") + key.path;
    for (const auto& [name, value] : key.values) text += L" " + name + L"=" + value;
    text += L"\n";
  }
  return {text.begin(), text.end()};
}

TEST(RegistryScript, ListsTheKeysOfTheModulesScriptsInOrderWithTheirValues) {
  const auto read = [](const char* name) {
    std::ifstream file(std::string(TESSALY_SOURCES "/") + name);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  EXPECT_EQ(Describe(read("module/tessaly.rgs"), {{"APPID", L"{A}"}}),
            "*AppID\nAppID\\{A} =Tessaly\nAppID\\Tessaly.EXE AppID={A}\n");
  EXPECT_EQ(Describe(read("module/class.rgs"), {{"PROGID", L"P.1"},
                                                {"VERSIONINDEPENDENTPROGID", L"P"},
                                                {"FriendlyName", L"F Object"},
                                                {"CLSID", L"{C}"},
                                                {"MODULE", L"c:\\it's } = %CLSID% 'x'.dll"},
                                                {"MODULETYPE", L"InprocServer32"},
                                                {"APPID", L"{A}"},
                                                {"MODULEGUID", L"{M}"}}),
            "P.1 =F Object\nP.1\\CLSID ={C}\n"
            "P =F Object\nP\\CLSID ={C}\nP\\CurVer =P.1\n"
            "CLSID\nCLSID\\{C} =F Object AppID={A} TypeLib={M}\nCLSID\\{C}\\ProgID =P.1\n"
            "CLSID\\{C}\\VersionIndependentProgID =P\nCLSID\\{C}\\Programmable\n"
            "CLSID\\{C}\\InprocServer32 =c:\\it's } = %CLSID% 'x'.dll ThreadingModel=apartment\n");
  EXPECT_EQ(Describe(read("converter/module/class.rgs"),
                     {{"CLSID", L"{C}"}, {"FriendlyName", L"F Object"}, {"MODULE", L"m.dll"}}),
            "CLSID\nCLSID\\{C} =F Object\nCLSID\\{C}\\InprocServer32 =m.dll ThreadingModel=Both\n");
}

TEST(RegistryScript, RefusesEveryBeginningOfAScriptAndAnUnknownReplacement) {
  const std::string script = "HKCR{NoRemove A=s 'x'{val B=s '%R%' C}}";
  const RegistryReplacements replacements = {{"R", L"r"}};
  EXPECT_EQ(Describe(script, replacements), "*A =x B=r\nA\\C\n");
  for (std::size_t length = 0; length < script.size(); ++length) {
    EXPECT_THROW(Describe(script.substr(0, length), replacements), std::invalid_argument) << length;
  }
  for (const char* wrong : {"HKCU { }", "HKCR { A = d 1 }", "HKCR { A = s { }", "HKCR { = s x }",
                            "HKCR { '%R' }", "HKCR { '%Q%' }", "HKCR { } }"}) {
    EXPECT_THROW(Describe(wrong, replacements), std::invalid_argument) << wrong;
  }
}

}  // namespace
}  // namespace marlinda
