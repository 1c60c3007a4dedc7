#include "tests/support/com_client.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "tests/support/contract_model.h"

namespace marlinda::testing {
namespace {

HMODULE module_handle = nullptr;
std::optional<Registration> registration;

}  // namespace

Registration::Registration() {
  static const std::vector<Class> classes = ClassesOfTheModule();
  for (const Class& known : classes) {
    ComPtr<IUnknown> factory;
    Check(ModuleUnderTest::GetClassObject(known.clsid, IID_IClassFactory,
                                          reinterpret_cast<void**>(factory.GetAddressOf())));
    Check(CoRegisterClassObject(known.clsid, factory.Get(), CLSCTX_INPROC_SERVER,
                                REGCLS_MULTIPLEUSE, &cookies_.emplace_back()));
  }
}

Registration::~Registration() {
  for (const DWORD cookie : cookies_) CoRevokeClassObject(cookie);
}

void ModuleUnderTest::Load() {
  module_handle = LoadLibraryW(Path().c_str());
  if (module_handle == nullptr) throw std::runtime_error("the module does not load");
  registration.emplace();
}

void ModuleUnderTest::Revoke() { registration.reset(); }

bool ModuleUnderTest::RevokeAndSeeUnused() {
  Revoke();
  // A thread that has released its object may still be ending.
  for (int tick = 0; tick < 6000 && CanUnloadNow() != S_OK; ++tick) Sleep(10);
  if (CanUnloadNow() == S_OK) return true;
  std::fprintf(stderr, "objects or threads of the module are left at the end\n");
  return false;
}

HMODULE ModuleUnderTest::Handle() { return module_handle; }

std::wstring ModuleUnderTest::Path() {
  if (const wchar_t* named = _wgetenv(L"TESSALY_DLL")) return named;
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  return (std::filesystem::path(program).parent_path().parent_path() / L"Tessaly.dll").wstring();
}

std::wstring ModuleUnderTest::Sibling(const std::wstring& name) {
  return std::filesystem::path(Path()).replace_filename(name).wstring();
}

HRESULT ModuleUnderTest::GetClassObject(REFCLSID clsid, REFIID iid, void** factory) {
  return ExportAs<decltype(DllGetClassObject)>(Handle(), "DllGetClassObject")(clsid, iid, factory);
}

HRESULT ModuleUnderTest::CanUnloadNow() {
  return ExportAs<decltype(DllCanUnloadNow)>(Handle(), "DllCanUnloadNow")();
}

int RunClient(const std::function<int()>& body) {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int result = 1;
  try {
    ModuleUnderTest::Load();
    result = body();
  } catch (const HResultError& error) {
    std::fprintf(stderr, "failed with 0x%08lX\n", static_cast<unsigned long>(error.code()));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  if (ModuleUnderTest::Handle() != nullptr && !ModuleUnderTest::RevokeAndSeeUnused()) result = 1;
  CoUninitialize();
  return result;
}

void* ExportOf(HMODULE library, const char* name) {
  const FARPROC address = GetProcAddress(library, name);
  if (address == nullptr) throw std::runtime_error(std::string("no export ") + name);
  return reinterpret_cast<void*>(address);
}

ForeignArray::ForeignArray(VARTYPE type, UINT dimensions, ULONG count, LONG lower_bound) {
  std::vector<SAFEARRAYBOUND> bounds(dimensions, SAFEARRAYBOUND{count, lower_bound});
  array_ = SafeArrayCreate(type, dimensions, bounds.data());
  if (array_ == nullptr) throw std::bad_alloc();
}

Floats::Floats(std::size_t count, float value, LONG lower_bound)
    : ForeignArray(VT_R4, 1, static_cast<ULONG>(count), lower_bound) {
  std::ranges::fill(values(), value);
}

Floats::Floats(std::span<const float> values) : Floats(values.size()) {
  std::ranges::copy(values, this->values().begin());
}

std::span<float> Floats::values() const {
  const SAFEARRAY* const array = *this;
  return {static_cast<float*>(array->pvData), array->rgsabound[0].cElements};
}

TemporaryFolder::TemporaryFolder() {
  static std::atomic<int> counter = 0;
  const std::string prefix = "tessaly-" + std::to_string(GetCurrentProcessId()) + "-";
  // Skips existing folders: a crashed test leaves its folder, and process identifiers repeat.
  do {
    path_ =
        (std::filesystem::temp_directory_path() / (prefix + std::to_string(++counter))).wstring();
  } while (!std::filesystem::create_directories(path_));
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

bool WaitForTask(ICoreTask* task) {
  VARIANT_BOOL running = VARIANT_TRUE;
  while (SUCCEEDED(task->QueryIsTaskRunning(&running)) && running != VARIANT_FALSE) Sleep(10);
  return running == VARIANT_FALSE;
}

}  // namespace marlinda::testing
