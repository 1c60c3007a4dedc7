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

constexpr const wchar_t* kGuid = L"{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}";
constexpr const wchar_t* kPool = L"CLSID\\{1A66174D-7E72-4209-A0D9-D524ACD94210}";

// The keys ("path\") and the values of the registry below a place, one line each.
using Lines = std::set<std::wstring>;

// The line of a text, with its terminator. The name of a default value is empty.
std::wstring Text(const std::wstring& path, const std::wstring& text, DWORD type = REG_SZ) {
  return path + L" = " + std::to_wstring(type) + L":" + text + L'\0';
}

void Collect(HKEY key, const std::wstring& path, Lines& lines) {
  wchar_t name[1024];
  for (DWORD index = 0;; ++index) {
    wchar_t data[2048] = L"";
    DWORD length = 1024;
    DWORD size = sizeof data - sizeof *data;
    DWORD type = REG_NONE;
    const LSTATUS error = RegEnumValueW(key, index, name, &length, nullptr, &type,
                                        reinterpret_cast<BYTE*>(data), &size);
    if (error == ERROR_NO_MORE_ITEMS) break;
    std::wstring line = Text(path + name, {data, size / sizeof *data}, type);
    line.pop_back();
    lines.insert(line);
  }
  for (DWORD index = 0;; ++index) {
    DWORD length = 1024;
    RegistryKey child;
    if (RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      break;
    }
    const std::wstring below = path + name + L"\\";
    lines.insert(below);
    if (RegOpenKeyExW(key, name, 0, KEY_READ, child.Receive()) == ERROR_SUCCESS) {
      Collect(child.get(), below, lines);
    }
  }
}

Lines Below(HKEY root, const std::wstring& path) {
  Lines lines;
  RegistryKey key;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.Receive()) == ERROR_SUCCESS) {
    Collect(key.get(), L"", lines);
  }
  return lines;
}

bool Exists(const std::wstring& path) { return !Below(HKEY_CLASSES_ROOT, path).empty(); }

// Without the entries of the automation library. Wine writes a user's type library for the machine.
Lines ClassesIn(HKEY root) {
  Lines lines = Below(root, L"Software\\Classes");
  std::erase_if(lines, [](const std::wstring& line) {
    return _wcsnicmp(line.c_str(), L"TypeLib\\", 8) == 0 ||
           _wcsnicmp(line.c_str(), L"Interface\\", 10) == 0 ||
           _wcsnicmp(line.c_str(), L"Wow6432Node\\", 12) == 0;
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
  const std::wstring app = std::wstring(L"AppID\\") + kGuid + L"\\";
  Lines lines = {app, Text(app, L"Tessaly"), L"AppID\\Tessaly.EXE\\",
                 Text(L"AppID\\Tessaly.EXE\\AppID", kGuid)};
  for (const Class& known : ClassesOfTheModule()) {
    wchar_t clsid[39];
    StringFromGUID2(known.clsid, clsid, 39);
    const std::wstring friendly = std::wstring(known.name.begin(), known.name.end()) + L" Object";
    const std::wstring prog_id = ProgId(known);
    const std::wstring versioned = prog_id + L".1";
    const std::wstring key = std::wstring(L"CLSID\\") + clsid + L"\\";
    for (const std::wstring& id : {prog_id, versioned}) {
      lines.insert({id + L"\\", Text(id + L"\\", friendly), id + L"\\CLSID\\",
                    Text(id + L"\\CLSID\\", clsid)});
    }
    lines.insert({prog_id + L"\\CurVer\\", Text(prog_id + L"\\CurVer\\", versioned), key,
                  Text(key, friendly), Text(key + L"AppID", kGuid), Text(key + L"TypeLib", kGuid),
                  key + L"ProgID\\", Text(key + L"ProgID\\", versioned),
                  key + L"VersionIndependentProgID\\",
                  Text(key + L"VersionIndependentProgID\\", prog_id), key + L"Programmable\\",
                  key + L"InprocServer32\\", Text(key + L"InprocServer32\\", module),
                  Text(key + L"InprocServer32\\ThreadingModel", L"apartment")});
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
    using Function = HRESULT(WINAPI*)();
    SetThreadLocale(MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT));
    const LCID german = GetThreadLocale();
    const HRESULT hr =
        reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(handle, name)))();
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
  void SetUp() override { RemoveAll(); }
  void TearDown() override { RemoveAll(); }

  static void Choose(const wchar_t* setting) {
    SetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting);
  }

  LoadedModule module_{std::filesystem::weakly_canonical(ModuleUnderTest::Path())};

 private:
  void RemoveAll() {
    for (const wchar_t* setting : {L"user", static_cast<const wchar_t*>(nullptr)}) {
      Choose(setting);
      ASSERT_EQ(module_.Unregister(), S_OK);
    }
  }
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
  }
  Choose(L"");
  EXPECT_EQ(module_.Register(), S_OK);
  Choose(L"both");
  EXPECT_EQ(module_.Unregister(), E_INVALIDARG);
  EXPECT_TRUE(Exists(L"AppID\\Tessaly.EXE"));
}

// The path looks like a script and holds letters of no code page.
TEST_F(Registration, LetsAnotherProcessCreateTypedObjectsOfAModuleAtAnyPath) {
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
    for (const Class& known : ClassesOfTheModule()) {
      CLSID clsid = {};
      EXPECT_EQ(CLSIDFromProgID(ProgId(known).c_str(), &clsid), S_OK);
      EXPECT_EQ(clsid, known.clsid);
    }
    const Lines library = Below(HKEY_CLASSES_ROOT, std::wstring(L"TypeLib\\") + kGuid + L"\\1.0");
    const std::wstring system = sizeof(void*) == 8 ? L"win64" : L"win32";
    EXPECT_TRUE(library.contains(Text(L"", L"Marlinda 1.0 Type Library")));
    EXPECT_TRUE(library.contains(Text(L"0\\" + system + L"\\", moved.path)));
    EXPECT_TRUE(library.contains(Text(L"HELPDIR\\", odd)));
    EXPECT_TRUE(Exists(L"Interface\\{86B3DC4E-2401-48A9-A393-3D946F030260}"));
    EXPECT_EQ(moved.Unregister(), S_OK);
  }
  EXPECT_TRUE(std::filesystem::remove(odd / L"Tessaly.dll")) << "the module is still loaded";
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 1);
  EXPECT_FALSE(Exists(std::wstring(L"TypeLib\\") + kGuid + L"\\1.0"));
  EXPECT_FALSE(Exists(L"Interface\\{86B3DC4E-2401-48A9-A393-3D946F030260}"));
}

TEST_F(Registration, StopsAtTheFirstFailureAndKeepsWhatWasDoneBefore) {
  // A lasting key cannot be made in one that does not last.
  RegistryKey volatile_key;
  ASSERT_EQ(
      RegCreateKeyExW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1", 0, nullptr, REG_OPTION_VOLATILE,
                      KEY_ALL_ACCESS, nullptr, volatile_key.Receive(), nullptr),
      ERROR_SUCCESS);
  EXPECT_EQ(module_.Register(), HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE));
  EXPECT_TRUE(Exists(L"AppID\\Tessaly.EXE"));
  EXPECT_TRUE(Exists(L"Marlinda.AudioPool.1\\CLSID"));
  EXPECT_FALSE(Exists(L"Marlinda.EditedAudio"));
  EXPECT_FALSE(Exists(L"Marlinda.WaveWriter.1"));
  EXPECT_FALSE(Exists(std::wstring(L"TypeLib\\") + kGuid));

  volatile_key.Reset();
  RegDeleteTreeW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1");
  EXPECT_EQ(module_.Register(), S_OK) << "once the obstacle is gone";
}

TEST_F(Registration, KeepsTheKeysThatOthersPutBelowAClass) {
  const auto write = [](const std::wstring& key, const wchar_t* name) {
    EXPECT_EQ(RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, L"kept", 10), 0);
  };
  ASSERT_EQ(module_.Register(), S_OK);
  write(std::wstring(kPool) + L"\\Foreign", L"Value");
  write(kPool, L"");
  EXPECT_EQ(module_.Register(), S_OK);
  EXPECT_TRUE(Below(HKEY_CLASSES_ROOT, kPool).contains(Text(L"", L"CAudioPool Object")));
  EXPECT_EQ(module_.Unregister(), S_OK);
  EXPECT_EQ(Below(HKEY_CLASSES_ROOT, kPool),
            (Lines{L"Foreign\\", Text(L"Foreign\\Value", L"kept")}));
  RegDeleteTreeW(HKEY_CLASSES_ROOT, kPool);
}

int Activate(const std::wstring& prog_id) {
  CLSID clsid = {};
  ComPtr<IDispatch> object;
  ComPtr<ITypeInfo> info;
  return SUCCEEDED(CLSIDFromProgID(prog_id.c_str(), &clsid)) &&
                 SUCCEEDED(CreateInstance(clsid, object)) &&
                 SUCCEEDED(object->GetTypeInfo(0, 0, info.GetAddressOf()))
             ? 0
             : 1;
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  const marlinda::Apartment apartment(COINIT_APARTMENTTHREADED);
  if (argc == 3 && std::string(argv[1]) == "--activate") {
    const std::string prog_id = argv[2];
    return marlinda::testing::Activate({prog_id.begin(), prog_id.end()});
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
