// The format converter that the connector finds by class identifier: any factory's, or that of the
// module which is built beside the engine's.
#pragma once

#include <converter.h>

#include <memory>
#include <string>

#include "core/com_ptr.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {

// Makes a converter the one that is found by class identifier, for as long as it lives.
class InstalledConverter {
 public:
  explicit InstalledConverter(IUnknown* factory) {
    Check(CoRegisterClassObject(CLSID_CFormatConverter, factory, CLSCTX_INPROC_SERVER,
                                REGCLS_MULTIPLEUSE, &cookie_));
  }
  InstalledConverter(const InstalledConverter&) = delete;
  InstalledConverter& operator=(const InstalledConverter&) = delete;
  ~InstalledConverter() { CoRevokeClassObject(cookie_); }

 private:
  DWORD cookie_ = 0;
};

// The module that is built beside the engine's.
class OurConverter {
 public:
  OurConverter() {
    std::wstring path = ModuleUnderTest::Path();
    path = path.substr(0, path.rfind(L'\\')) + L"\\Converter.dll";
    module_ = LoadLibraryW(path.c_str());
    using Function = HRESULT(WINAPI*)(REFCLSID, REFIID, void**);
    const auto get = reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(module_, "DllGetClassObject")));
    ComPtr<IUnknown> factory;
    Check(get(CLSID_CFormatConverter, IID_IClassFactory,
              reinterpret_cast<void**>(factory.GetAddressOf())));
    installed_ = std::make_unique<InstalledConverter>(factory.Get());
  }

 private:
  HMODULE module_ = nullptr;  // stays loaded
  std::unique_ptr<InstalledConverter> installed_;
};

}  // namespace marlinda::testing
