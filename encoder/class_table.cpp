// The one class of this module.
#include "core/class_table.h"

#include <converter.h>

namespace marlinda {

CreationFunction CreateCMp3Encoder;

std::span<const ClassEntry> ClassTable() noexcept {
  static const ClassEntry table[] = {
      {&CLSID_CMp3Encoder, L"CMp3Encoder", CreateCMp3Encoder},
  };
  return table;
}

}  // namespace marlinda
