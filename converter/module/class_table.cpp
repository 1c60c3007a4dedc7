// The one class of this module, and its registration. There is neither an application identifier
// nor a type library to register.
#include "core/class_table.h"

#include <converter.h>

#include "core/com_call.h"
#include "core/registration.h"
#include "module/registration.h"

namespace marlinda {

CreationFunction CreateCFormatConverter;

std::span<const ClassEntry> ClassTable() noexcept {
  static const ClassEntry table[] = {
      {&CLSID_CFormatConverter, L"CFormatConverter", CreateCFormatConverter},
  };
  return table;
}

HRESULT RegisterModule() noexcept {
  return ComCall([] { Registration().RegisterClasses(ClassTable()); });
}

HRESULT UnregisterModule() noexcept {
  return ComCall([] { Registration().UnregisterClasses(ClassTable()); });
}

}  // namespace marlinda
