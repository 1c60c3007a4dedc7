// Registers the module in the real registry and reads the entries back.
//   registration_tests --activate PROGID
// creates an object in a process of its own; exit status 0 when it could.
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "core/handle.h"
#include "tests/core/registry_view.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

constexpr const wchar_t* kGuid = L"{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}";

struct RegisteredClass {
  std::wstring name;
  std::wstring clsid;
  std::wstring ProgId() const { return L"Marlinda." + name.substr(1); }
};

std::wstring ToText(REFGUID guid) {
  wchar_t text[39];
  StringFromGUID2(guid, text, 39);
  return text;
}

// The classes of the module's type library.
std::vector<RegisteredClass> Classes() {
  std::vector<RegisteredClass> classes;
  ComPtr<ITypeLib> library;
  Check(LoadTypeLibEx(ModuleUnderTest::Path().c_str(), REGKIND_NONE, library.GetAddressOf()));
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    TYPEKIND kind = TKIND_MAX;
    Check(library->GetTypeInfoType(i, &kind));
    if (kind != TKIND_COCLASS) continue;
    ComPtr<ITypeInfo> info;
    Check(library->GetTypeInfo(i, info.GetAddressOf()));
    Bstr name;
    Check(
        library->GetDocumentation(static_cast<INT>(i), name.Receive(), nullptr, nullptr, nullptr));
    TYPEATTR* attributes = nullptr;
    Check(info->GetTypeAttr(&attributes));
    classes.push_back({name.str(), ToText(attributes->guid)});
    info->ReleaseTypeAttr(attributes);
  }
  return classes;
}

// The entries of the module at `path`, without the type library and the shared keys.
RegistryView ExpectedEntries(const std::wstring& path) {
  const std::wstring guid = std::wstring(L"1:") + kGuid;
  RegistryView view = {{std::wstring(L"AppID\\") + kGuid + L"\\", L""},
                       {std::wstring(L"AppID\\") + kGuid + L"\\@", L"1:Tessaly"},
                       {L"AppID\\Tessaly.EXE\\", L""},
                       {L"AppID\\Tessaly.EXE\\AppID", guid}};
  for (const RegisteredClass& expected : Classes()) {
    const std::wstring friendly = L"1:" + expected.name + L" Object";
    const std::wstring clsid = L"1:" + expected.clsid;
    const std::wstring prog_id = expected.ProgId();
    const std::wstring key = L"CLSID\\" + expected.clsid + L"\\";
    view.insert({{prog_id + L".1\\", L""},
                 {prog_id + L".1\\@", friendly},
                 {prog_id + L".1\\CLSID\\", L""},
                 {prog_id + L".1\\CLSID\\@", clsid},
                 {prog_id + L"\\", L""},
                 {prog_id + L"\\@", friendly},
                 {prog_id + L"\\CLSID\\", L""},
                 {prog_id + L"\\CLSID\\@", clsid},
                 {prog_id + L"\\CurVer\\", L""},
                 {prog_id + L"\\CurVer\\@", L"1:" + prog_id + L".1"},
                 {key, L""},
                 {key + L"@", friendly},
                 {key + L"AppID", guid},
                 {key + L"TypeLib", guid},
                 {key + L"ProgID\\", L""},
                 {key + L"ProgID\\@", L"1:" + prog_id + L".1"},
                 {key + L"VersionIndependentProgID\\", L""},
                 {key + L"VersionIndependentProgID\\@", L"1:" + prog_id},
                 {key + L"Programmable\\", L""},
                 {key + L"InprocServer32\\", L""},
                 {key + L"InprocServer32\\@", L"1:" + path},
                 {key + L"InprocServer32\\ThreadingModel", L"1:apartment"}});
  }
  return view;
}

RegistryView MachineClasses() { return ViewRegistry(HKEY_LOCAL_MACHINE, L"Software\\Classes"); }
RegistryView UserClasses() { return ViewRegistry(HKEY_CURRENT_USER, L"Software\\Classes"); }

bool HasEntry(const std::wstring& path) { return !ViewRegistry(HKEY_CLASSES_ROOT, path).empty(); }

// The automation library's own entries, and the shared keys that may have been there before.
RegistryView WithoutTypeLibrary(const RegistryView& view) {
  return NotBelow(view, {L"TypeLib\\", L"Interface\\", L"Wow6432Node\\"});
}
RegistryView WithoutSharedKeys(RegistryView view) {
  view.erase(L"AppID\\");
  view.erase(L"CLSID\\");
  return view;
}

class LoadedModule {
 public:
  explicit LoadedModule(std::wstring path)
      : path_(std::move(path)), handle_(LoadLibraryW(path_.c_str())) {
    if (handle_ == nullptr) throw std::runtime_error("the module does not load");
  }
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;
  ~LoadedModule() { FreeLibrary(handle_); }

  const std::wstring& path() const { return path_; }
  HRESULT Register() const { return Call("DllRegisterServer"); }
  HRESULT Unregister() const { return Call("DllUnregisterServer"); }

 private:
  // Each call, failed or not, must restore the thread's locale.
  HRESULT Call(const char* name) const {
    using Function = HRESULT(WINAPI*)();
    SetThreadLocale(MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT));
    const LCID german = GetThreadLocale();
    const HRESULT hr =
        reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(handle_, name)))();
    EXPECT_EQ(GetThreadLocale(), german) << name;
    return hr;
  }

  std::wstring path_;
  HMODULE handle_;
};

std::wstring ModulePath() {
  return std::filesystem::weakly_canonical(ModuleUnderTest::Path()).wstring();
}

// The exit status of this program run once more with --activate.
DWORD ActivateElsewhere(const std::wstring& prog_id) {
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  std::wstring command = L"\"" + std::wstring(program) + L"\" --activate " + prog_id;
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  if (CreateProcessW(program, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                     &startup, &process) == FALSE) {
    throw std::runtime_error("this program does not start once more");
  }
  const KernelHandle thread(process.hThread);
  const KernelHandle running(process.hProcess);
  WaitForSingleObject(running.get(), INFINITE);
  DWORD status = 0;
  GetExitCodeProcess(running.get(), &status);
  return status;
}

class Registration : public ::testing::Test {
 protected:
  void SetUp() override { RemoveAll(); }
  void TearDown() override { RemoveAll(); }

  static void Choose(const wchar_t* setting) {
    SetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting);
  }

  LoadedModule module_{ModulePath()};

 private:
  void RemoveAll() {
    for (const wchar_t* setting : {L"user", static_cast<const wchar_t*>(nullptr)}) {
      Choose(setting);
      ASSERT_EQ(module_.Unregister(), S_OK);
    }
  }
};

TEST_F(Registration, WritesExactlyItsEntriesAndRemovesThem) {
  for (const wchar_t* setting : {L"machine", L"user"}) {
    SCOPED_TRACE(::testing::PrintToString(std::wstring(setting)));
    Choose(setting);
    const bool is_user = setting == std::wstring(L"user");
    const auto classes = is_user ? UserClasses : MachineClasses;
    // Wine writes a user's type library for the machine, so that part is left out.
    const auto others = [&] {
      return WithoutTypeLibrary(is_user ? MachineClasses() : UserClasses());
    };
    const RegistryView before = classes();
    const RegistryView others_before = others();
    ASSERT_EQ(module_.Register(), S_OK);
    const RegistryView after = classes();
    EXPECT_EQ(ToLines(WithoutSharedKeys(WithoutTypeLibrary(Added(before, after)))),
              ToLines(ExpectedEntries(module_.path())));
    EXPECT_EQ(ToLines(Added(after, before)), "") << "entries of others";
    EXPECT_EQ(ToLines(others()), ToLines(others_before));
    EXPECT_EQ(module_.Register(), S_OK) << "a second registration";
    EXPECT_EQ(ToLines(Added(after, classes())), "");

    ASSERT_EQ(module_.Unregister(), S_OK);
    const RegistryView left = classes();
    EXPECT_TRUE(left.contains(L"AppID\\"));
    EXPECT_EQ(ToLines(WithoutSharedKeys(Added(before, left))), "");
    EXPECT_EQ(ToLines(Added(left, before)), "");
    EXPECT_EQ(module_.Unregister(), S_OK) << "a second unregistration";
  }
}

TEST_F(Registration, RefusesAnUnknownSettingAndWritesNothing) {
  for (const wchar_t* setting : {L"User", L"machine ", L"a setting that is rather long"}) {
    Choose(setting);
    EXPECT_EQ(module_.Register(), E_INVALIDARG);
    EXPECT_FALSE(HasEntry(L"AppID\\Tessaly.EXE"));
  }
  Choose(L"");
  EXPECT_EQ(module_.Register(), S_OK);
  Choose(L"both");
  EXPECT_EQ(module_.Unregister(), E_INVALIDARG);
  EXPECT_TRUE(HasEntry(L"AppID\\Tessaly.EXE"));
}

TEST_F(Registration, LetsAnotherProcessCreateClassesByEitherProgId) {
  ASSERT_EQ(module_.Register(), S_OK);
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 0U);
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader"), 0U);
  const auto classes = Classes();
  EXPECT_EQ(classes.size(), 14U);
  for (const RegisteredClass& expected : classes) {
    CLSID clsid = {};
    EXPECT_EQ(CLSIDFromProgID(expected.ProgId().c_str(), &clsid), S_OK);
    EXPECT_EQ(ToText(clsid), expected.clsid);
    ComPtr<IUnknown> factory;
    EXPECT_EQ(CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               reinterpret_cast<void**>(factory.GetAddressOf())),
              S_OK);
  }
  ASSERT_EQ(module_.Unregister(), S_OK);
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 1U);
}

TEST_F(Registration, RegistersTheTypeLibraryWithItsInterfaces) {
  ASSERT_EQ(module_.Register(), S_OK);
  ComPtr<ITypeLib> library;
  EXPECT_EQ(LoadRegTypeLib(LIBID_MarlindaLib, 1, 0, 0, library.GetAddressOf()), S_OK);
  RegistryView entries = ViewRegistry(HKEY_CLASSES_ROOT, std::wstring(L"TypeLib\\") + kGuid);
  EXPECT_EQ(entries[L"1.0\\@"], L"1:Marlinda 1.0 Type Library");
  const std::wstring system = sizeof(void*) == 8 ? L"win64" : L"win32";
  EXPECT_EQ(entries[L"1.0\\0\\" + system + L"\\@"], L"1:" + module_.path());
  EXPECT_EQ(entries[L"1.0\\HELPDIR\\@"],
            L"1:" + std::filesystem::path(module_.path()).parent_path().wstring());
  EXPECT_TRUE(HasEntry(L"Interface\\{86B3DC4E-2401-48A9-A393-3D946F030260}"));
  library.Reset();
  ASSERT_EQ(module_.Unregister(), S_OK);
  EXPECT_NE(LoadRegTypeLib(LIBID_MarlindaLib, 1, 0, 0, library.GetAddressOf()), S_OK);
  EXPECT_FALSE(HasEntry(L"Interface\\{86B3DC4E-2401-48A9-A393-3D946F030260}"));
}

TEST_F(Registration, WritesAModulePathThatLooksLikeAScript) {
  const TemporaryFolder folder;
  const std::filesystem::path odd =
      std::filesystem::path(folder.path()) / L"it's } %MODULE% = s 'x' {\u00e9\u97f3}";
  std::filesystem::create_directories(odd);
  std::filesystem::copy_file(module_.path(), odd / L"Tessaly.dll");
  {
    const LoadedModule moved((odd / L"Tessaly.dll").wstring());
    ASSERT_EQ(moved.Register(), S_OK);
    EXPECT_EQ(ViewRegistry(HKEY_CLASSES_ROOT,
                           L"CLSID\\{95E1D938-FE65-44BB-B2AD-1EF81D278512}")[L"InprocServer32\\@"],
              L"1:" + moved.path());
    EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 0U);
    EXPECT_EQ(moved.Unregister(), S_OK);
  }
}

TEST_F(Registration, StopsAtTheFirstFailureAndKeepsWhatWasDoneBefore) {
  // A lasting key cannot be made in one that does not last.
  RegistryKey volatile_key;
  ASSERT_EQ(
      RegCreateKeyExW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1", 0, nullptr, REG_OPTION_VOLATILE,
                      KEY_ALL_ACCESS, nullptr, volatile_key.Receive(), nullptr),
      ERROR_SUCCESS);
  EXPECT_EQ(module_.Register(), HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE));
  EXPECT_TRUE(HasEntry(L"AppID\\Tessaly.EXE"));
  EXPECT_TRUE(HasEntry(L"Marlinda.AudioPool.1\\CLSID"));
  EXPECT_FALSE(HasEntry(L"Marlinda.EditedAudio"));
  EXPECT_FALSE(HasEntry(L"Marlinda.WaveWriter.1"));
  EXPECT_FALSE(HasEntry(std::wstring(L"TypeLib\\") + kGuid));

  volatile_key.Reset();
  RegDeleteTreeW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1");
  EXPECT_EQ(module_.Register(), S_OK) << "once the obstacle is gone";
}

TEST_F(Registration, KeepsTheKeysThatOthersPutBelowAClass) {
  const std::wstring pool = L"CLSID\\{1A66174D-7E72-4209-A0D9-D524ACD94210}";
  ASSERT_EQ(module_.Register(), S_OK);
  WriteText(HKEY_CLASSES_ROOT, pool + L"\\Foreign", L"Value", L"kept");
  WriteText(HKEY_CLASSES_ROOT, pool, L"", L"Another pool");
  EXPECT_EQ(module_.Register(), S_OK);
  EXPECT_EQ(ViewRegistry(HKEY_CLASSES_ROOT, pool)[L"Foreign\\Value"], L"1:kept");
  EXPECT_EQ(ViewRegistry(HKEY_CLASSES_ROOT, pool)[L"@"], L"1:CAudioPool Object");
  EXPECT_EQ(module_.Unregister(), S_OK);
  EXPECT_EQ(ToLines(ViewRegistry(HKEY_CLASSES_ROOT, pool)),
            "Foreign\\ = \nForeign\\Value = 1:kept\n");
  RegDeleteTreeW(HKEY_CLASSES_ROOT, pool.c_str());
}

int Activate(const std::wstring& prog_id) {
  CLSID clsid = {};
  ComPtr<IUnknown> object;
  return SUCCEEDED(CLSIDFromProgID(prog_id.c_str(), &clsid)) &&
                 SUCCEEDED(CreateInstance(clsid, object))
             ? 0
             : 1;
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  int result = 0;
  if (argc == 3 && std::string(argv[1]) == "--activate") {
    const std::string prog_id = argv[2];
    result = marlinda::testing::Activate({prog_id.begin(), prog_id.end()});
  } else {
    ::testing::InitGoogleTest(&argc, argv);
    result = RUN_ALL_TESTS();
  }
  CoUninitialize();
  return result;
}
