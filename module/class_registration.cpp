// The registration of a module that has neither an application identifier nor a type library.
#include "core/class_table.h"
#include "core/com_call.h"
#include "core/registration.h"
#include "module/registration.h"

namespace marlinda {

HRESULT RegisterModule() noexcept {
  return ComCall([] { Registration().RegisterClasses(ClassTable()); });
}

HRESULT UnregisterModule() noexcept {
  return ComCall([] { Registration().UnregisterClasses(ClassTable()); });
}

}  // namespace marlinda
