#include "core/registry.h"

#include <gtest/gtest.h>

namespace marlinda::testing {
namespace {

using Strings = std::vector<std::string>;

class Registry : public ::testing::Test {
 protected:
  Registry() { RegDeleteTreeA(HKEY_CURRENT_USER, kKey); }
  ~Registry() override { RegDeleteTreeA(HKEY_CURRENT_USER, kKey); }

  void SetUp() override { ASSERT_EQ(registry_.Open(HKEY_CURRENT_USER, kKey, false), 0); }

  static void Store(const char* name, DWORD type, const std::string& bytes) {
    ASSERT_EQ(RegSetKeyValueA(HKEY_CURRENT_USER, kKey, name, type, bytes.data(),
                              static_cast<DWORD>(bytes.size())),
              0);
  }

  // As the system's own tools store a text: with its terminator.
  static void StoreText(const char* name, const std::string& text) {
    Store(name, REG_SZ, text + '\0');
  }

  static constexpr char kKey[] = "Software\\TessalyRegistryTest\\Key";
  CRegistry registry_;
};

TEST_F(Registry, OpenCreatesAMissingKeyAlsoForReadingOnly) {
  CRegistry other;
  const std::string subkey = std::string(kKey) + "\\Below";
  EXPECT_EQ(other.Open(HKEY_CURRENT_USER, subkey, true), ERROR_SUCCESS);
  RegistryKey found;
  EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, subkey.c_str(), 0, KEY_READ, found.Receive()),
            ERROR_SUCCESS);

  other.WriteDword("Number", 7);
  EXPECT_EQ(other.ReadDword("Number", 1), 1U) << "a key opened for reading was written";
}

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
  registry_.Close();
  EXPECT_EQ(registry_.ReadString("Text", "closed"), "closed");
  EXPECT_EQ(registry_.ReadDword("Number", 43), 43U);
}

TEST_F(Registry, EnumerationTakesTextsAloneAndEndsAtTheFirstThatDoesNotFit) {
  StoreText("a", "first");
  Store("b", REG_DWORD, std::string(4, '\1'));
  Store("c", REG_EXPAND_SZ, std::string("%TEMP%\0", 7));
  StoreText("d", std::string(99, 'y'));
  StoreText(std::string(99, 'e').c_str(), "long name");
  Strings names = {"kept"};
  Strings datas = {"kept too"};
  registry_.EnumStringValues(names, datas);
  EXPECT_EQ(names, (Strings{"kept", "a", "d", std::string(99, 'e')}));
  EXPECT_EQ(datas, (Strings{"kept too", "first", std::string(99, 'y'), "long name"}));

  StoreText("f", std::string(100, 'z'));
  StoreText("g", "behind the value that does not fit");
  names.clear();
  registry_.EnumStringValues(names, datas);
  EXPECT_EQ(names, (Strings{"a", "d", std::string(99, 'e')}));
}

}  // namespace
}  // namespace marlinda::testing
