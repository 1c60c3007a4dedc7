// The one class of this module, and its registration. There is neither an application identifier
// nor a type library to register.
#include "core/class_table.h"

#include <converter.h>

#include "core/com_call.h"
#include "core/registration.h"
#include "module/registration.h"

namespace marlinda {

CreationFunction CreateCMp3Encoder;

std::span<const ClassEntry> ClassTable() noexcept {
  static const ClassEntry table[] = {
      {&CLSID_CMp3Encoder, L"CMp3Encoder", CreateCMp3Encoder},
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
