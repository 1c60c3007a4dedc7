// The one class of this module.
#include "core/class_table.h"

#include <converter.h>

namespace marlinda {

HRESULT CreateCFormatConverter(IUnknown* outer, REFIID iid, void** object) noexcept;

std::span<const ClassEntry> ClassTable() noexcept {
  // Created by class identifier alone, so there is no ProgID.
  static const ClassEntry table[] = {
      {&CLSID_CFormatConverter, L"CFormatConverter", L"", CreateCFormatConverter},
  };
  return table;
}

}  // namespace marlinda
