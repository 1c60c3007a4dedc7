// Registers the module in the real registry and reads the entries back.
//   registration_tests --activate PROGID
// creates an object in a process of its own and asks for its type; exit status 0 when it could.
#include <gtest/gtest.h>
#include <process.h>

#include <algorithm>
#include <cwchar>
#include <filesystem>
#include <iterator>
#include <set>

#include "core/apartment.h"
#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"

namespace marlinda::testing {
namespace {

const std::wstring kGuid = L"{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}";
constexpr const wchar_t* kPool = L"CLSID\\{1A66174D-7E72-4209-A0D9-D524ACD94210}";

// The keys ("path\") and values ("path\name=text") of the registry below a place.
using Lines = std::set<std::wstring>;

void Collect(HKEY root, const std::wstring& path, const std::wstring& shown, Lines& lines) {
  RegistryKey key;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.Receive()) != ERROR_SUCCESS) return;
  wchar_t name[1024];
  const auto next = [&](DWORD index, auto enumerate) {
    DWORD length = std::size(name);
    return enumerate(key.get(), index, name, &length) == ERROR_SUCCESS;
  };
  wchar_t text[2048];
  const auto value = [&](HKEY of, DWORD index, wchar_t* to, DWORD* length) {
    DWORD size = sizeof text;
    std::ranges::fill(text, L'\0');
    return RegEnumValueW(of, index, to, length, nullptr, nullptr, reinterpret_cast<BYTE*>(text),
                         &size);
  };
  for (DWORD i = 0; next(i, value); ++i) lines.insert(shown + name + L"=" + text);
  const auto child = [](HKEY of, DWORD index, wchar_t* to, DWORD* length) {
    return RegEnumKeyExW(of, index, to, length, nullptr, nullptr, nullptr, nullptr);
  };
  for (DWORD i = 0; next(i, child); ++i) {
    const std::wstring below = name;
    lines.insert(shown + below + L"\\");
    Collect(key.get(), below, shown + below + L"\\", lines);
  }
}

Lines Below(HKEY root, const std::wstring& path) {
  Lines lines;
  Collect(root, path, L"", lines);
  return lines;
}

bool Exists(const std::wstring& path) { return !Below(HKEY_CLASSES_ROOT, path).empty(); }

// Without the entries of the automation library. Wine writes a user's type library for the machine.
Lines ClassesIn(HKEY root) {
  Lines lines = Below(root, L"Software\\Classes");
  // Wine and Windows write them in different cases.
  std::erase_if(lines, [](const std::wstring& line) {
    const auto is_in = [&](const std::wstring& key) {
      return _wcsnicmp(line.c_str(), key.c_str(), key.size()) == 0;
    };
    return is_in(L"TypeLib\\") || is_in(L"Interface\\") || is_in(L"Wow6432Node\\");
  });
  return lines;
}

// Without the shared keys, which may have been there before.
Lines Added(const Lines& before, const Lines& after) {
  Lines added;
  std::ranges::set_difference(after, before, std::inserter(added, added.end()));
  added.erase(L"AppID\\");
  added.erase(L"CLSID\\");
  return added;
}

std::wstring ProgId(const Class& known) {
  return L"Marlinda." + std::wstring(known.name.begin() + 1, known.name.end());
}

Lines ExpectedEntries(const std::wstring& module) {
  const std::wstring app = L"AppID\\" + kGuid + L"\\";
  Lines lines = {app, app + L"=Tessaly", L"AppID\\Tessaly.EXE\\",
                 L"AppID\\Tessaly.EXE\\AppID=" + kGuid};
  for (const Class& known : ClassesOfTheModule()) {
    wchar_t clsid[39];
    StringFromGUID2(known.clsid, clsid, 39);
    const std::wstring friendly = std::wstring(known.name.begin(), known.name.end()) + L" Object";
    const std::wstring id = ProgId(known);
    const std::wstring key = std::wstring(L"CLSID\\") + clsid + L"\\";
    for (const std::wstring& each : {id, id + L".1"}) {
      lines.insert({each + L"\\", each + L"\\=" + friendly, each + L"\\CLSID\\",
                    each + L"\\CLSID\\=" + clsid});
    }
    lines.insert({id + L"\\CurVer\\", id + L"\\CurVer\\=" + id + L".1", key, key + L"=" + friendly,
                  key + L"AppID=" + kGuid, key + L"TypeLib=" + kGuid, key + L"ProgID\\",
                  key + L"ProgID\\=" + id + L".1", key + L"VersionIndependentProgID\\",
                  key + L"VersionIndependentProgID\\=" + id, key + L"Programmable\\",
                  key + L"InprocServer32\\", key + L"InprocServer32\\=" + module,
                  key + L"InprocServer32\\ThreadingModel=apartment"});
  }
  return lines;
}

struct LoadedModule {
  explicit LoadedModule(const std::filesystem::path& from)
      : path(from), handle(LoadLibraryW(from.c_str())) {}
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;
  ~LoadedModule() { FreeLibrary(handle); }

  HRESULT Register() const { return Call("DllRegisterServer"); }
  HRESULT Unregister() const { return Call("DllUnregisterServer"); }
  // Each call, failed or not, must restore the thread's locale.
  HRESULT Call(const char* name) const {
    SetThreadLocale(MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT));
    const LCID german = GetThreadLocale();
    const HRESULT hr = ExportAs<HRESULT WINAPI()>(handle, name)();
    EXPECT_EQ(GetThreadLocale(), german) << name;
    return hr;
  }

  const std::filesystem::path path;
  const HMODULE handle;
};

// The exit status of this program run once more with --activate.
int ActivateElsewhere(const wchar_t* prog_id) {
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  return static_cast<int>(
      _wspawnl(_P_WAIT, program, L"registration_tests", L"--activate", prog_id, nullptr));
}

class Registration : public ::testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    for (const wchar_t* setting : {L"user", L"machine", L""}) {
      Choose(setting);
      ASSERT_EQ(module_.Unregister(), S_OK);
    }
  }
  static void Choose(const wchar_t* setting) {
    SetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting);
  }

  const LoadedModule module_{std::filesystem::weakly_canonical(ModuleUnderTest::Path())};
};

TEST_F(Registration, WritesExactlyItsEntriesAndRemovesThem) {
  const std::tuple<const wchar_t*, HKEY, HKEY> kSettings[] = {
      {L"machine", HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER},
      {L"user", HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE}};
  for (const auto& [setting, own, other] : kSettings) {
    Choose(setting);
    const Lines before = ClassesIn(own);
    const Lines others = ClassesIn(other);
    ASSERT_EQ(module_.Register(), S_OK);
    EXPECT_EQ(module_.Register(), S_OK) << "a second registration";
    const Lines after = ClassesIn(own);
    EXPECT_EQ(Added(before, after), ExpectedEntries(module_.path));
    EXPECT_EQ(Added(after, before), Lines());
    EXPECT_EQ(ClassesIn(other), others);

    ASSERT_EQ(module_.Unregister(), S_OK);
    const Lines left = ClassesIn(own);
    EXPECT_TRUE(left.contains(L"AppID\\"));
    EXPECT_EQ(Added(before, left), Lines());
    EXPECT_EQ(Added(left, before), Lines());
    EXPECT_EQ(module_.Unregister(), S_OK) << "a second unregistration";
  }
}

TEST_F(Registration, RefusesAnUnknownSettingAndWritesNothing) {
  for (const wchar_t* setting : {L"User", L"machine ", L"a setting that is rather long"}) {
    Choose(setting);
    EXPECT_EQ(module_.Register(), E_INVALIDARG);
    EXPECT_FALSE(Exists(L"AppID\\Tessaly.EXE"));
    EXPECT_EQ(module_.Unregister(), E_INVALIDARG);
  }
}

// The path looks like a script and holds letters of no code page.
TEST_F(Registration, LetsAnotherProcessCreateTypedObjectsOfAModuleAtAnyPath) {
  const std::wstring library = L"TypeLib\\" + kGuid + L"\\1.0";
  const TemporaryFolder folder;
  const std::filesystem::path odd =
      std::filesystem::path(folder.path()) / L"it's } %MODULE% = s 'x' {\u00e9\u97f3} #1;,&";
  std::filesystem::create_directories(odd);
  std::filesystem::copy_file(module_.path, odd / L"Tessaly.dll");
  {
    const LoadedModule moved(odd / L"Tessaly.dll");
    ASSERT_EQ(moved.Register(), S_OK);
    EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 0);
    EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader"), 0);
    const Lines written = Below(HKEY_CLASSES_ROOT, library);
    EXPECT_TRUE(written.contains(L"=Marlinda 1.0 Type Library"));
    EXPECT_TRUE(written.contains((sizeof(void*) == 8 ? L"0\\win64\\=" : L"0\\win32\\=") +
                                 moved.path.wstring()));
    EXPECT_TRUE(written.contains(L"HELPDIR\\=" + odd.wstring()));
    EXPECT_EQ(moved.Unregister(), S_OK);
  }
  EXPECT_TRUE(std::filesystem::remove(odd / L"Tessaly.dll")) << "the module is still loaded";
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 1);
  EXPECT_FALSE(Exists(library));
  EXPECT_FALSE(Exists(L"Interface\\{86B3DC4E-2401-48A9-A393-3D946F030260}"));
}

TEST_F(Registration, StopsAtTheFirstFailureAndKeepsWhatOthersPutBelowAClass) {
  // A lasting key cannot be made in one that does not last.
  RegistryKey key;
  ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1", 0, nullptr,
                            REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, key.Receive(), nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(module_.Register(), HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE));
  EXPECT_TRUE(Exists(L"Marlinda.AudioPool.1\\CLSID"));
  EXPECT_FALSE(Exists(L"TypeLib\\" + kGuid));
  key.Reset();
  RegDeleteTreeW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1");
  EXPECT_EQ(module_.Register(), S_OK) << "once the obstacle is gone";

  const auto write = [](const wchar_t* below, const wchar_t* name) {
    EXPECT_EQ(RegSetKeyValueW(HKEY_CLASSES_ROOT, (kPool + std::wstring(below)).c_str(), name,
                              REG_SZ, L"kept", 10),
              0);
  };
  write(L"\\Foreign", L"Value");
  write(L"\\Programmable", L"Theirs");
  write(L"", L"");
  EXPECT_EQ(module_.Register(), S_OK);
  EXPECT_TRUE(Below(HKEY_CLASSES_ROOT, kPool).contains(L"=CAudioPool Object"));
  EXPECT_EQ(module_.Unregister(), S_OK);
  EXPECT_EQ(Below(HKEY_CLASSES_ROOT, kPool),
            (Lines{L"Foreign\\", L"Foreign\\Value=kept", L"Programmable\\",
                   L"Programmable\\Theirs=kept"}));
  RegDeleteTreeW(HKEY_CLASSES_ROOT, kPool);
}

int Activate(const std::string& prog_id) {
  CLSID clsid = {};
  ComPtr<IDispatch> object;
  ComPtr<ITypeInfo> info;
  const std::wstring wide(prog_id.begin(), prog_id.end());
  const bool could = SUCCEEDED(CLSIDFromProgID(wide.c_str(), &clsid)) &&
                     SUCCEEDED(CreateInstance(clsid, object)) &&
                     SUCCEEDED(object->GetTypeInfo(0, 0, info.GetAddressOf()));
  return could ? 0 : 1;
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  const marlinda::Apartment apartment(COINIT_APARTMENTTHREADED);
  if (argc == 3 && std::string(argv[1]) == "--activate") {
    return marlinda::testing::Activate(argv[2]);
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
