#include "module/registration.h"

#include <marlinda.h>

#include <string>

#include "core/class_table.h"
#include "core/com_call.h"
#include "core/com_ptr.h"
#include "core/module.h"
#include "core/registration.h"
#include "core/resource.h"

namespace marlinda {
namespace {

// oleaut32.dll exports the ForUser functions from Windows Vista on, but few headers declare them.
template <class Function>
Function PerUserFunction(const char* name) {
  const FARPROC address = GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), name);
  if (address == nullptr) throw HResultError(LastErrorResult());
  return reinterpret_cast<Function>(reinterpret_cast<void*>(address));
}

void RegisterTypeLibrary(bool is_per_user) {
  std::wstring path = TheModule().Path();
  std::wstring folder = path.substr(0, path.rfind(L'\\'));
  ComPtr<ITypeLib> library;
  Check(LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.GetAddressOf()));
  const auto register_library =
      is_per_user ? PerUserFunction<decltype(&RegisterTypeLib)>("RegisterTypeLibForUser")
                  : RegisterTypeLib;
  Check(register_library(library.Get(), path.data(), folder.data()));
}

void UnregisterTypeLibrary(const Registration& registration) {
  const bool is_64_bit = sizeof(void*) == 8;
  const auto unregister_library =
      registration.is_per_user()
          ? PerUserFunction<decltype(&UnRegisterTypeLib)>("UnRegisterTypeLibForUser")
          : UnRegisterTypeLib;
  const HRESULT hr =
      unregister_library(LIBID_MarlindaLib, 1, 0, 0, is_64_bit ? SYS_WIN64 : SYS_WIN32);
  // If no type library is registered, `hr` may be any of several failures and is ignored.
  if (registration.HasKey(L"TypeLib\\" + ToText(LIBID_MarlindaLib) + L"\\1.0\\0\\" +
                          (is_64_bit ? L"win64" : L"win32"))) {
    Check(hr);
  }
}

}  // namespace

HRESULT RegisterModule() noexcept {
  return ComCall([] {
    const Registration registration;
    registration.Register(IDR_MODULE_REGISTRATION);
    registration.RegisterClasses(ClassTable());
    RegisterTypeLibrary(registration.is_per_user());
  });
}

HRESULT UnregisterModule() noexcept {
  return ComCall([] {
    const Registration registration;
    UnregisterTypeLibrary(registration);
    registration.UnregisterClasses(ClassTable());
    registration.Unregister(IDR_MODULE_REGISTRATION);
  });
}

}  // namespace marlinda
