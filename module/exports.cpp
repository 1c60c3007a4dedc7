// The five functions that the module exports.
#include <windows.h>

#include "core/class_table.h"
#include "core/com_call.h"
#include "core/module.h"
#include "core/plain_object.h"
#include "core/type_library.h"
#include "module/registration.h"

using marlinda::ClassTable;
using marlinda::TheModule;

namespace {

// The class factory for any row of the class table. A factory counts as an object of the module.
class ClassFactory final : public marlinda::PlainObject<IClassFactory> {
 public:
  explicit ClassFactory(const marlinda::ClassEntry& entry) noexcept : entry_(entry) {}

  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    return entry_.create(outer, iid, object);
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    if (lock == FALSE) return TheModule().Unlock() ? S_OK : E_UNEXPECTED;
    TheModule().Lock();
    return S_OK;
  }

 private:
  const marlinda::ModuleObjectCount module_count_;
  const marlinda::ClassEntry& entry_;
};

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void* process_ends) {
  if (reason == DLL_PROCESS_ATTACH) {
    // Thread notifications stay enabled, because the runtime in this module uses them to free the
    // data of threads that end.
    TheModule().Attach(instance);
  } else if (reason == DLL_PROCESS_DETACH && process_ends == nullptr) {
    // Not called at process end, when the automation library may already be unloaded.
    marlinda::ReleaseTypeInfo();
  }
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** factory) {
  if (factory == nullptr) return E_POINTER;
  *factory = nullptr;
  for (const auto& entry : ClassTable()) {
    if (IsEqualCLSID(*entry.clsid, clsid)) {
      return marlinda::ComCall([&] {
        auto* created = new ClassFactory(entry);
        const HRESULT hr = created->QueryInterface(iid, factory);
        created->Release();
        return hr;
      });
    }
  }
  return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() { return TheModule().CanUnload() ? S_OK : S_FALSE; }

STDAPI DllRegisterServer() { return marlinda::RegisterModule(); }

STDAPI DllUnregisterServer() { return marlinda::UnregisterModule(); }
