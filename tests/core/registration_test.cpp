// Registers the module in the real registry and reads back what is there.
//   registration_tests --activate PROGID
// instead creates an object as a program of its own does and tells how it went by its exit status:
// 0 created, 3 the class is registered but not offered, 4 anything else.
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>

#include "core/handle.h"
#include "tests/core/registry_view.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

constexpr const wchar_t* kGuid = L"{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}";

struct ExpectedClass {
  const wchar_t* name;
  const wchar_t* version_independent_prog_id;
  const wchar_t* clsid;
};

constexpr ExpectedClass kExpectedClasses[] = {
    {L"CAudioConnector", L"Marlinda.AudioConnector", L"{8AB19A67-C05A-4B8B-9EA9-AB1368F99273}"},
    {L"CAudioGrabber", L"Marlinda.AudioGrabber", L"{26F2E15F-A6B7-481D-BCDF-CC9077AE5BF6}"},
    {L"CAudioPlayback", L"Marlinda.AudioPlayback", L"{2DD2B5BC-2127-45A4-A2C0-A391053A313C}"},
    {L"CAudioPool", L"Marlinda.AudioPool", L"{1A66174D-7E72-4209-A0D9-D524ACD94210}"},
    {L"CAudioPoolReader", L"Marlinda.AudioPoolReader", L"{F58F3E5B-105A-4B7C-BBA3-D4A7515002A1}"},
    {L"CAudioScrubber", L"Marlinda.AudioScrubber", L"{3770515C-8044-4EA5-96B1-17E892DD2B6C}"},
    {L"CDShowExport", L"Marlinda.DShowExport", L"{2F392C1E-8EC0-402C-A7DA-DC6431BB82FA}"},
    {L"CEditedAudio", L"Marlinda.EditedAudio", L"{7D106EC9-92F0-428D-8A5A-58D445DC3580}"},
    {L"CWavExportFilter", L"Marlinda.WavExportFilter", L"{A1C2E206-01E2-4491-BA66-706843198EC9}"},
    {L"CDShowImport", L"Marlinda.DShowImport", L"{E0E38925-4864-4E36-B7C9-6C908F5289FF}"},
    {L"CFileFilterMgr", L"Marlinda.FileFilterMgr", L"{F9866FF8-ED3C-43D9-B7B9-F459EEAC472B}"},
    {L"CNullReader", L"Marlinda.NullReader", L"{95E1D938-FE65-44BB-B2AD-1EF81D278512}"},
    {L"COggImport", L"Marlinda.OggImport", L"{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}"},
    {L"CWaveWriter", L"Marlinda.WaveWriter", L"{B9928AE3-DB1D-4A3B-A08B-3F8EC7FA756D}"},
};

// What registration of the module at `path` leaves, type library and shared keys apart.
RegistryView ExpectedEntries(const std::wstring& path) {
  RegistryView view;
  const auto key = [&](const std::wstring& name) { view[name + L"\\"]; };
  const auto text = [&](const std::wstring& name, const std::wstring& data) {
    view[name] = L"1:" + data;
  };
  const std::wstring app_id = std::wstring(L"AppID\\") + kGuid;
  key(app_id);
  text(app_id + L"\\@", L"Tessaly");
  key(L"AppID\\Tessaly.EXE");
  text(L"AppID\\Tessaly.EXE\\AppID", kGuid);
  for (const ExpectedClass& expected : kExpectedClasses) {
    const std::wstring friendly_name = std::wstring(expected.name) + L" Object";
    const std::wstring independent = expected.version_independent_prog_id;
    const std::wstring versioned = independent + L".1";
    key(versioned);
    text(versioned + L"\\@", friendly_name);
    key(versioned + L"\\CLSID");
    text(versioned + L"\\CLSID\\@", expected.clsid);
    key(independent);
    text(independent + L"\\@", friendly_name);
    key(independent + L"\\CLSID");
    text(independent + L"\\CLSID\\@", expected.clsid);
    key(independent + L"\\CurVer");
    text(independent + L"\\CurVer\\@", versioned);
    const std::wstring clsid = std::wstring(L"CLSID\\") + expected.clsid;
    key(clsid);
    text(clsid + L"\\@", friendly_name);
    text(clsid + L"\\AppID", kGuid);
    text(clsid + L"\\TypeLib", kGuid);
    key(clsid + L"\\ProgID");
    text(clsid + L"\\ProgID\\@", versioned);
    key(clsid + L"\\VersionIndependentProgID");
    text(clsid + L"\\VersionIndependentProgID\\@", independent);
    key(clsid + L"\\Programmable");
    key(clsid + L"\\InprocServer32");
    text(clsid + L"\\InprocServer32\\@", path);
    text(clsid + L"\\InprocServer32\\ThreadingModel", L"apartment");
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

// A module loaded from a file, as a registration program has it.
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
  HRESULT Call(const char* name) const {
    using Function = HRESULT(WINAPI*)();
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(handle_, name)))();
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
  void TearDown() override {
    SetThreadLocale(locale_);
    RemoveAll();
  }

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

  const LCID locale_ = GetThreadLocale();
};

TEST_F(Registration, WritesExactlyItsEntriesForTheMachineAndTakesThemBack) {
  const RegistryView machine_before = MachineClasses();
  const RegistryView user_before = UserClasses();
  ASSERT_EQ(module_.Register(), S_OK);
  const RegistryView machine_after = MachineClasses();
  EXPECT_EQ(ToLines(WithoutSharedKeys(WithoutTypeLibrary(Added(machine_before, machine_after)))),
            ToLines(ExpectedEntries(module_.path())));
  EXPECT_EQ(ToLines(Added(machine_after, machine_before)), "") << "something went";
  EXPECT_EQ(ToLines(UserClasses()), ToLines(user_before));

  EXPECT_EQ(module_.Register(), S_OK) << "a second registration";
  EXPECT_EQ(ToLines(Added(machine_after, MachineClasses())), "");

  ASSERT_EQ(module_.Unregister(), S_OK);
  const RegistryView left = MachineClasses();
  EXPECT_TRUE(left.contains(L"AppID\\"));
  EXPECT_EQ(ToLines(WithoutSharedKeys(Added(machine_before, left))), "");
  EXPECT_EQ(ToLines(Added(left, machine_before)), "");
  EXPECT_EQ(module_.Unregister(), S_OK) << "a second unregistration";
}

TEST_F(Registration, WritesTheSameEntriesForOneUser) {
  const RegistryView machine_before = MachineClasses();
  const RegistryView user_before = UserClasses();
  Choose(L"user");
  ASSERT_EQ(module_.Register(), S_OK);
  EXPECT_EQ(ToLines(WithoutSharedKeys(WithoutTypeLibrary(Added(user_before, UserClasses())))),
            ToLines(ExpectedEntries(module_.path())));
  // Wine writes a user's type library for the whole machine, so that part is left out here.
  EXPECT_EQ(ToLines(WithoutTypeLibrary(Added(machine_before, MachineClasses()))), "");

  ASSERT_EQ(module_.Unregister(), S_OK);
  EXPECT_TRUE(UserClasses().contains(L"AppID\\"));
  RegistryView left = Added(user_before, UserClasses());
  left.erase(L"AppID\\");
  EXPECT_EQ(ToLines(left), "");
  EXPECT_EQ(ToLines(Added(machine_before, MachineClasses())), "");
  EXPECT_EQ(module_.Unregister(), S_OK) << "a second unregistration";
}

TEST_F(Registration, RefusesASettingItDoesNotKnowAndTouchesNothing) {
  for (const wchar_t* setting : {L"User", L"machine ", L"both", L"a setting that is rather long"}) {
    Choose(setting);
    EXPECT_EQ(module_.Register(), E_INVALIDARG);
    EXPECT_FALSE(HasEntry(L"AppID\\Tessaly.EXE"));
  }
  for (const wchar_t* setting : {L"machine", L""}) {
    Choose(setting);
    EXPECT_EQ(module_.Register(), S_OK);
    EXPECT_TRUE(HasEntry(L"AppID\\Tessaly.EXE"));
    Choose(L"both");
    EXPECT_EQ(module_.Unregister(), E_INVALIDARG);
    EXPECT_TRUE(HasEntry(L"AppID\\Tessaly.EXE"));
    Choose(setting);
    EXPECT_EQ(module_.Unregister(), S_OK);
    EXPECT_FALSE(HasEntry(L"AppID\\Tessaly.EXE"));
  }
}

TEST_F(Registration, LetsAnotherProgramCreateEveryClassByEitherProgId) {
  ASSERT_EQ(module_.Register(), S_OK);
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 0U);
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader"), 0U);
  for (const ExpectedClass& expected : kExpectedClasses) {
    // A class is found through its entries whether or not this version offers it already.
    CLSID clsid = {};
    EXPECT_EQ(CLSIDFromProgID(expected.version_independent_prog_id, &clsid), S_OK);
    wchar_t text[39];
    StringFromGUID2(clsid, text, 39);
    EXPECT_STREQ(text, expected.clsid);
    ComPtr<IUnknown> factory;
    const HRESULT hr = CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                        reinterpret_cast<void**>(factory.GetAddressOf()));
    EXPECT_TRUE(hr == S_OK || hr == CLASS_E_CLASSNOTAVAILABLE) << std::hex << hr;
  }
  ASSERT_EQ(module_.Unregister(), S_OK);
  EXPECT_EQ(ActivateElsewhere(L"Marlinda.NullReader.1"), 4U);
}

TEST_F(Registration, MakesTheTypeLibraryKnownWithItsInterfaces) {
  ASSERT_EQ(module_.Register(), S_OK);
  ComPtr<ITypeLib> library;
  ASSERT_EQ(LoadRegTypeLib(LIBID_MarlindaLib, 1, 0, 0, library.GetAddressOf()), S_OK);
  Bstr name, help;
  ASSERT_EQ(
      library->GetDocumentation(MEMBERID_NIL, name.Receive(), help.Receive(), nullptr, nullptr),
      S_OK);
  EXPECT_EQ(help.str(), L"Marlinda 1.0 Type Library");

  RegistryView entries = ViewRegistry(HKEY_CLASSES_ROOT, std::wstring(L"TypeLib\\") + kGuid);
  EXPECT_EQ(entries[L"1.0\\@"], L"1:Marlinda 1.0 Type Library");
  EXPECT_EQ(entries[L"1.0\\0\\win64\\@"], L"1:" + module_.path());
  EXPECT_EQ(entries[L"1.0\\HELPDIR\\@"],
            L"1:" + std::filesystem::path(module_.path()).parent_path().wstring());
  RegistryView interfaces = ViewRegistry(HKEY_CLASSES_ROOT, L"Interface");
  EXPECT_EQ(interfaces[L"{86B3DC4E-2401-48A9-A393-3D946F030260}\\@"], L"1:IAudioReader");
  EXPECT_EQ(interfaces[L"{86B3DC4E-2401-48A9-A393-3D946F030260}\\TypeLib\\@"],
            std::wstring(L"1:") + kGuid);

  library.Reset();
  ASSERT_EQ(module_.Unregister(), S_OK);
  EXPECT_NE(LoadRegTypeLib(LIBID_MarlindaLib, 1, 0, 0, library.GetAddressOf()), S_OK);
}

TEST_F(Registration, WorksFromAFolderWhoseNameLooksLikeAScript) {
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

// Every kind of entry that a registration would write over, in the middle of the work an entry that
// cannot be written, and the registry as it was afterwards.
TEST_F(Registration, AFailureInTheMiddleLeavesTheRegistryAsItWas) {
  const std::wstring pool = L"CLSID\\{1A66174D-7E72-4209-A0D9-D524ACD94210}";
  WriteText(HKEY_CLASSES_ROOT, pool, L"", L"Another pool");
  WriteText(HKEY_CLASSES_ROOT, pool + L"\\Foreign\\Below", L"Value", L"kept");
  WriteText(HKEY_CLASSES_ROOT, L"Marlinda.AudioPool.1\\CLSID", L"", L"{another}");
  WriteText(HKEY_CLASSES_ROOT, std::wstring(L"AppID\\") + kGuid, L"", L"Another application");
  // A lasting key cannot be made in one that does not last.
  RegistryKey volatile_key;
  ASSERT_EQ(
      RegCreateKeyExW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1", 0, nullptr, REG_OPTION_VOLATILE,
                      KEY_ALL_ACCESS, nullptr, volatile_key.Receive(), nullptr),
      ERROR_SUCCESS);
  WriteText(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1", L"", L"In the way");
  const RegistryView before = MachineClasses();

  SetThreadLocale(MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT));
  const LCID german = GetThreadLocale();
  EXPECT_EQ(module_.Register(), HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE));
  EXPECT_EQ(GetThreadLocale(), german);
  const RegistryView after = MachineClasses();
  EXPECT_EQ(ToLines(Added(before, after)), "");
  EXPECT_EQ(ToLines(Added(after, before)), "");

  volatile_key.Reset();
  RegDeleteTreeW(HKEY_CLASSES_ROOT, L"Marlinda.EditedAudio.1");
  EXPECT_EQ(module_.Register(), S_OK) << "once the obstacle is gone";
  EXPECT_FALSE(HasEntry(pool + L"\\Foreign"));
}

TEST_F(Registration, GivesTheThreadItsLocaleBack) {
  SetThreadLocale(MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT));
  const LCID german = GetThreadLocale();
  EXPECT_EQ(module_.Register(), S_OK);
  EXPECT_EQ(GetThreadLocale(), german);
  EXPECT_EQ(module_.Unregister(), S_OK);
  EXPECT_EQ(GetThreadLocale(), german);
  Choose(L"neither");
  EXPECT_EQ(module_.Register(), E_INVALIDARG);
  EXPECT_EQ(GetThreadLocale(), german);
}

int Activate(const std::wstring& prog_id) {
  CLSID clsid = {};
  HRESULT hr = CLSIDFromProgID(prog_id.c_str(), &clsid);
  ComPtr<IUnknown> object;
  if (SUCCEEDED(hr)) {
    // In-process alone: asked for any server, the system hides the module's own answer.
    hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                          reinterpret_cast<void**>(object.GetAddressOf()));
  }
  if (hr == S_OK) return 0;
  std::cerr << "0x" << std::hex << static_cast<unsigned>(hr) << '\n';
  return hr == CLASS_E_CLASSNOTAVAILABLE ? 3 : 4;
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
