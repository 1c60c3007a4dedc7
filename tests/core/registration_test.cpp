// Registers the module in the real registry, reads the entries back and uses them to create
// objects.
#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <filesystem>
#include <set>

#include "core/apartment.h"
#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"

namespace marlinda::testing {
namespace {

const std::wstring kGuid = L"{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}";
constexpr const wchar_t* kPool = L"CLSID\\{1A66174D-7E72-4209-A0D9-D524ACD94210}";

// The keys ("path\") and the values ("path\name=text") of a part of the registry.
using Lines = std::set<std::wstring>;

Lines Below(HKEY root, const std::wstring& path, const std::wstring& shown = L"") {
  Lines lines;
  RegistryKey key;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.Receive()) != ERROR_SUCCESS) return lines;
  wchar_t name[1024];
  wchar_t text[2048] = {};
  for (DWORD i = 0, length = 1024, size = sizeof text;
       RegEnumValueW(key.get(), i, name, &length, nullptr, nullptr, reinterpret_cast<BYTE*>(text),
                     &size) == ERROR_SUCCESS;
       ++i, length = 1024, size = sizeof text) {
    lines.insert(shown + name + L"=" + std::wstring(text).substr(0, size / 2));
  }
  for (DWORD i = 0; RegEnumKeyW(key.get(), i, name, 1024) == ERROR_SUCCESS; ++i) {
    lines.insert(shown + name + L"\\");
    lines.merge(Below(key.get(), name, shown + name + L"\\"));
  }
  return lines;
}

bool Exists(const std::wstring& path) { return !Below(HKEY_CLASSES_ROOT, path).empty(); }

// Omits the entries of the type library, because Wine registers it for all users even if the module
// is registered for one user.
Lines ClassesIn(HKEY root) {
  Lines lines = Below(root, L"Software\\Classes");
  // Ignores case, because Wine and Windows write these keys in different cases.
  std::erase_if(lines, [](const std::wstring& line) {
    const auto is_in = [&](const std::wstring& key) {
      return _wcsnicmp(line.c_str(), key.c_str(), key.size()) == 0;
    };
    return is_in(L"TypeLib\\") || is_in(L"Interface\\") || is_in(L"Wow6432Node\\");
  });
  // Adds these two keys if missing, because they may or may not exist before the registration.
  lines.insert({L"AppID\\", L"CLSID\\"});
  return lines;
}

class Registration : public ::testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    for (const wchar_t* setting : {L"user", L"machine", L""}) {
      Choose(setting);
      ASSERT_EQ(Unregister(), S_OK);
    }
  }
  static void Choose(const wchar_t* setting) {
    SetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting);
  }
  // Each call must restore the thread's locale, even if it fails.
  static HRESULT Call(HMODULE module, const char* name) {
    SetThreadLocale(MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT));
    const LCID german = GetThreadLocale();
    const HRESULT hr = ExportAs<HRESULT WINAPI()>(module, name)();
    EXPECT_EQ(GetThreadLocale(), german) << name;
    return hr;
  }
  HRESULT Register() const { return Call(module_, "DllRegisterServer"); }
  HRESULT Unregister() const { return Call(module_, "DllUnregisterServer"); }

  const std::filesystem::path path_ = std::filesystem::weakly_canonical(ModuleUnderTest::Path());
  const HMODULE module_ = LoadLibraryW(path_.c_str());
};

TEST_F(Registration, WritesExactlyItsEntriesAndRemovesThem) {
  for (const bool user : {false, true}) {
    Choose(user ? L"user" : L"machine");
    const HKEY own = user ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
    const HKEY other = user ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    const Lines before = ClassesIn(own);
    const Lines others = ClassesIn(other);
    ASSERT_EQ(Register(), S_OK);
    EXPECT_EQ(Register(), S_OK) << "a second registration";
    const Lines after = ClassesIn(own);
    Lines added;
    std::ranges::set_difference(after, before, std::inserter(added, added.end()));
    EXPECT_TRUE(std::ranges::includes(after, before));
    EXPECT_EQ(added.size(), 4 + 22 * ClassesOfTheModule().size());
    const std::wstring pool = kPool + std::wstring(L"\\");
    const std::wstring friendly = L"\\=CAudioPool Object";
    const Lines expected = {L"AppID\\" + kGuid + L"\\=Tessaly",
                            L"AppID\\Tessaly.EXE\\AppID=" + kGuid,
                            L"Marlinda.AudioPool" + friendly,
                            L"Marlinda.AudioPool.1" + friendly,
                            L"Marlinda.AudioPool\\CurVer\\=Marlinda.AudioPool.1",
                            L"Marlinda.AudioPool.1\\CLSID\\=" + std::wstring(kPool).substr(6),
                            pool + L"=CAudioPool Object",
                            pool + L"AppID=" + kGuid,
                            pool + L"TypeLib=" + kGuid,
                            pool + L"ProgID\\=Marlinda.AudioPool.1",
                            pool + L"Programmable\\",
                            pool + L"VersionIndependentProgID\\=Marlinda.AudioPool",
                            pool + L"InprocServer32\\=" + path_.wstring(),
                            pool + L"InprocServer32\\ThreadingModel=apartment"};
    EXPECT_TRUE(std::ranges::includes(added, expected));
    EXPECT_EQ(ClassesIn(other), others);
    ASSERT_EQ(Unregister(), S_OK);
    EXPECT_EQ(ClassesIn(own), before);
    EXPECT_TRUE(Below(own, L"Software\\Classes").contains(L"AppID\\"));
    EXPECT_EQ(Unregister(), S_OK) << "a second unregistration";
  }
  Choose(L"User");
  EXPECT_EQ(Register(), E_INVALIDARG);
  EXPECT_FALSE(Exists(L"AppID\\Tessaly.EXE"));
  EXPECT_EQ(Unregister(), E_INVALIDARG);
}

// The module's path looks like a registry script and contains letters beyond ASCII.
TEST_F(Registration, AModuleAtAnyPathCreatesObjectsWithTypeInformation) {
  const std::wstring library = L"TypeLib\\" + kGuid + L"\\1.0";
  const TemporaryFolder folder;
  const std::filesystem::path odd =
      std::filesystem::path(folder.path()) / L"it's } %MODULE% = s 'x' {\u00e9\u97f3} #1;,&";
  const std::filesystem::path moved = odd / L"Tessaly.dll";
  std::filesystem::create_directories(odd);
  std::filesystem::copy_file(path_, moved);
  const HMODULE module = LoadLibraryW(moved.c_str());
  ASSERT_EQ(Call(module, "DllRegisterServer"), S_OK);
  for (const wchar_t* prog_id : {L"Marlinda.NullReader.1", L"Marlinda.NullReader"}) {
    CLSID clsid = {};
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(CLSIDFromProgID(prog_id, &clsid), S_OK);
    EXPECT_EQ(Create<IDispatch>(clsid)->GetTypeInfo(0, 0, info.GetAddressOf()), S_OK);
  }
  const Lines written = Below(HKEY_CLASSES_ROOT, library);
  EXPECT_TRUE(written.contains(L"=Marlinda 1.0 Type Library"));
  EXPECT_TRUE(
      written.contains((sizeof(void*) == 8 ? L"0\\win64\\=" : L"0\\win32\\=") + moved.wstring()));
  EXPECT_TRUE(written.contains(L"HELPDIR\\=" + odd.wstring()));
  EXPECT_EQ(Call(module, "DllUnregisterServer"), S_OK);
  EXPECT_FALSE(Exists(library) || Exists(L"Marlinda.NullReader.1"));
  EXPECT_FALSE(Exists(L"Interface\\{86B3DC4E-2401-48A9-A393-3D946F030260}"));
  FreeLibrary(module);
  CoFreeUnusedLibrariesEx(0, 0);
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  const marlinda::Apartment apartment(COINIT_APARTMENTTHREADED);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
