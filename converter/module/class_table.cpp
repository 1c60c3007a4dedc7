// The only class of this module.
#include "core/class_table.h"

#include <converter.h>

namespace marlinda {

CreationFunction CreateCFormatConverter;

std::span<const ClassEntry> ClassTable() noexcept {
  static const ClassEntry table[] = {
      {&CLSID_CFormatConverter, L"CFormatConverter", CreateCFormatConverter},
  };
  return table;
}

}  // namespace marlinda
