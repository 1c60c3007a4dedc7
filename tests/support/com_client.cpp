#include "tests/support/com_client.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/support/contract_model.h"

namespace marlinda::testing {
namespace {

using GetClassObjectFunction = HRESULT(WINAPI*)(REFCLSID, REFIID, void**);
using CanUnloadNowFunction = HRESULT(WINAPI*)();

HMODULE module_handle = nullptr;
std::vector<DWORD> registrations;

template <class Function>
Function Export(const char* name) {
  const FARPROC address = GetProcAddress(ModuleUnderTest::Handle(), name);
  if (address == nullptr) throw std::runtime_error(std::string("no export ") + name);
  return reinterpret_cast<Function>(reinterpret_cast<void*>(address));
}

}  // namespace

void ModuleUnderTest::Load() {
  module_handle = LoadLibraryW(Path().c_str());
  if (module_handle == nullptr) throw std::runtime_error("the module does not load");
  static const std::vector<Class> classes = ClassesOfTheModule();
  for (const Class& known : classes) {
    ComPtr<IUnknown> factory;
    DWORD cookie = 0;
    Check(GetClassObject(known.clsid, IID_IClassFactory,
                         reinterpret_cast<void**>(factory.GetAddressOf())));
    Check(CoRegisterClassObject(known.clsid, factory.Get(), CLSCTX_INPROC_SERVER,
                                REGCLS_MULTIPLEUSE, &cookie));
    registrations.push_back(cookie);
  }
}

void ModuleUnderTest::Revoke() {
  for (const DWORD cookie : registrations) CoRevokeClassObject(cookie);
  registrations.clear();
}

bool ModuleUnderTest::RevokeAndSeeUnused() {
  Revoke();
  // A thread that has released its object may still be ending.
  for (int tick = 0; tick < 6000 && CanUnloadNow() != S_OK; ++tick) Sleep(10);
  const bool unused = CanUnloadNow() == S_OK;
  if (!unused) std::fprintf(stderr, "objects or threads of the module are left at the end\n");
  return unused;
}

HMODULE ModuleUnderTest::Handle() { return module_handle; }

std::wstring ModuleUnderTest::Path() {
  if (const wchar_t* named = _wgetenv(L"TESSALY_DLL")) return named;
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  return (std::filesystem::path(program).parent_path().parent_path() / L"Tessaly.dll").wstring();
}

HRESULT ModuleUnderTest::GetClassObject(REFCLSID clsid, REFIID iid, void** factory) {
  return Export<GetClassObjectFunction>("DllGetClassObject")(clsid, iid, factory);
}

HRESULT ModuleUnderTest::CanUnloadNow() {
  return Export<CanUnloadNowFunction>("DllCanUnloadNow")();
}

Floats::Floats(std::size_t count, float value, LONG lower_bound) {
  SAFEARRAYBOUND bound = {static_cast<ULONG>(count), lower_bound};
  array_ = SafeArrayCreate(VT_R4, 1, &bound);
  if (array_ == nullptr) throw std::bad_alloc();
  std::ranges::fill(values(), value);
}

Floats::Floats(std::span<const float> values) : Floats(values.size()) {
  std::ranges::copy(values, this->values().begin());
}

Floats::~Floats() { SafeArrayDestroy(array_); }

std::span<float> Floats::values() const {
  return {static_cast<float*>(array_->pvData), array_->rgsabound[0].cElements};
}

std::vector<float> Floats::ToVector() const { return {values().begin(), values().end()}; }

ForeignArray::ForeignArray(VARTYPE type, UINT dimensions, ULONG count) {
  std::vector<SAFEARRAYBOUND> bounds(dimensions, SAFEARRAYBOUND{count, 0});
  array_ = SafeArrayCreate(type, dimensions, bounds.data());
  if (array_ == nullptr) throw std::bad_alloc();
}

ForeignArray::~ForeignArray() { SafeArrayDestroy(array_); }

TemporaryFolder::TemporaryFolder() {
  static std::atomic<int> counter = 0;
  const std::string prefix = "tessaly-" + std::to_string(GetCurrentProcessId()) + "-";
  // Process identifiers come again, and a test that crashed leaves its folder behind.
  constexpr int kMaxNames = 1000;
  std::filesystem::path folder;
  std::error_code error;
  for (int tried = 0; tried < kMaxNames; ++tried) {
    folder = std::filesystem::temp_directory_path() / (prefix + std::to_string(++counter));
    if (std::filesystem::create_directories(folder, error)) {
      path_ = folder.wstring();
      return;
    }
  }
  throw std::filesystem::filesystem_error("no temporary folder can be made", folder, error);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<unsigned char> ReadFileBytes(const std::wstring& path) {
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  if (!file) throw std::runtime_error("a file cannot be opened for reading");
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFileBytes(const std::wstring& path, std::span<const unsigned char> bytes) {
  std::ofstream file(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::runtime_error("a file cannot be written");
}

ULONG ReferenceCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

bool WaitForTask(ICoreTask* task, int seconds) {
  for (int tick = 0; tick < seconds * 100; ++tick) {
    VARIANT_BOOL running = VARIANT_FALSE;
    Check(task->QueryIsTaskRunning(&running));
    if (running == VARIANT_FALSE) return true;
    Sleep(10);
  }
  return false;
}

}  // namespace marlinda::testing
