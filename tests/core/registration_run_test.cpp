// Registration scripts and their rollback on a scratch part of the real registry.
#include "core/registration/registration_run.h"

#include <gtest/gtest.h>

#include "core/com_call.h"
#include "core/handle.h"
#include "tests/core/registry_view.h"

namespace marlinda::testing {
namespace {

constexpr const wchar_t* kScratch = L"Software\\TessalyTests";

class RegistrationRun : public ::testing::Test {
 protected:
  void SetUp() override { RegDeleteTreeW(HKEY_CURRENT_USER, kScratch); }
  void TearDown() override { RegDeleteTreeW(HKEY_CURRENT_USER, kScratch); }

  // `keys` is what stands in the scratch key.
  static RegistryScript Script(const std::wstring& keys) {
    return ParseRegistryScript(
        L"HKCU { NoRemove Software { NoRemove TessalyTests {" + keys + L"} } }", {});
  }
  static void Register(const std::wstring& keys) {
    RegistryTransaction registry;
    RunRegistration(Script(keys), RegistrationScope::kMachine, registry);
    registry.Commit();
  }
  static void Unregister(const std::wstring& keys) {
    RegistryTransaction registry;
    RunUnregistration(Script(keys), RegistrationScope::kMachine, registry);
    registry.Commit();
  }
  static std::string Content() { return ToLines(ViewRegistry(HKEY_CURRENT_USER, kScratch)); }
  static void Write(const std::wstring& key, const wchar_t* name, const wchar_t* text) {
    WriteText(HKEY_CURRENT_USER, std::wstring(kScratch) + L"\\" + key, name, text);
  }
};

TEST_F(RegistrationRun, WritesTextsAndNumbersAndTakesThemBack) {
  const std::wstring keys = L"A = s 'one' { val Zero = d 0 val Big = d 0x80000001 B { C = s '' } }";
  Register(keys);
  EXPECT_EQ(Content(),
            "A\\ = \nA\\@ = 1:one\nA\\B\\ = \nA\\B\\C\\ = \nA\\B\\C\\@ = 1:\n"
            "A\\Big = 4: 1 0 0 128\nA\\Zero = 4: 0 0 0 0\n");
  Register(keys);
  Unregister(keys);
  EXPECT_EQ(Content(), "");
  Unregister(keys);
  EXPECT_EQ(Content(), "");
}

TEST_F(RegistrationRun, ForceRemoveAndDeleteEmptyWhatWasThereAndNothingElse) {
  Write(L"Forced\\Old", L"", L"x");
  Write(L"Forced", L"Old", L"x");
  Write(L"Deleted\\Old", L"", L"x");
  Write(L"Plain\\Foreign", L"", L"x");
  const std::wstring keys =
      L"ForceRemove Forced { New } Delete Deleted Delete Never Plain = s p { val n = d 1 }";
  Register(keys);
  EXPECT_EQ(Content(),
            "Forced\\ = \nForced\\New\\ = \nPlain\\ = \nPlain\\@ = 1:p\nPlain\\Foreign\\ = \n"
            "Plain\\Foreign\\@ = 1:x\nPlain\\n = 4: 1 0 0 0\n");
  Write(L"Forced\\Foreign", L"", L"x");
  Unregister(keys);
  EXPECT_EQ(Content(), "Plain\\ = \nPlain\\Foreign\\ = \nPlain\\Foreign\\@ = 1:x\n");
}

TEST_F(RegistrationRun, UnregistrationKeepsWhatIsMarkedNeverToBeRemoved) {
  const std::wstring keys =
      L"NoRemove Kept = s k { val Goes = s x NoRemove val Stays = s x Inner } Plain { NoRemove val "
      L"Stays = s x }";
  Register(keys);
  Unregister(keys);
  EXPECT_EQ(Content(),
            "Kept\\ = \nKept\\@ = 1:k\nKept\\Stays = 1:x\nPlain\\ = \nPlain\\Stays = 1:x\n");
}

TEST_F(RegistrationRun, AFailureTakesBackEveryKindOfChange) {
  Write(L"Forced\\Old\\Older", L"Value", L"x");
  Write(L"Deleted", L"", L"x");
  Write(L"Plain", L"Overwritten", L"before");
  const std::vector<BYTE> bytes = {1, 2, 3};
  RegSetKeyValueW(HKEY_CURRENT_USER, L"Software\\TessalyTests\\Plain", L"Number", REG_BINARY,
                  bytes.data(), 3);
  RegSetKeyValueW(HKEY_CURRENT_USER, L"Software\\TessalyTests\\Plain", L"Empty", REG_SZ, nullptr,
                  0);
  Write(L"Plain\\Keep", L"", L"x");
  RegistryKey volatile_key;
  ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\TessalyTests\\Volatile", 0, nullptr,
                            REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, volatile_key.Receive(),
                            nullptr),
            ERROR_SUCCESS);
  const std::string before = Content();

  // A lasting key cannot be made in one that does not last.
  const RegistryScript script = Script(
      L"ForceRemove Forced { New = s n } Delete Deleted Fresh { A { B = s b } }"
      L"Plain = s p { val Overwritten = d 7 val Number = s n val Empty = d 1 Keep = s y { More } }"
      L"Volatile = s v { Lasting } Never");
  EXPECT_THROW(
      {
        RegistryTransaction registry;
        RunRegistration(script, RegistrationScope::kMachine, registry);
      },
      HResultError);
  EXPECT_EQ(Content(), before);

  {
    RegistryTransaction registry;
    RunUnregistration(script, RegistrationScope::kMachine, registry);
    EXPECT_NE(Content(), before);
  }
  EXPECT_EQ(Content(), before);
}

}  // namespace
}  // namespace marlinda::testing
