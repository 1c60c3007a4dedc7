// Selects the format converter that the connector finds by class identifier.
#pragma once

#include <converter.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {

// Registers a converter's class factory while this object exists.
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

// The converter built beside the engine. Its module stays loaded.
struct OurConverter : InstalledConverter {
  OurConverter() : InstalledConverter(Factory().Get()) {}

  static ComPtr<IUnknown> Factory() {
    const HMODULE library = LoadLibraryW(ModuleUnderTest::Sibling(L"Converter.dll").c_str());
    ComPtr<IUnknown> factory;
    Check(ExportAs<decltype(DllGetClassObject)>(library, "DllGetClassObject")(
        CLSID_CFormatConverter, IID_IClassFactory,
        reinterpret_cast<void**>(factory.GetAddressOf())));
    return factory;
  }
};

}  // namespace marlinda::testing
