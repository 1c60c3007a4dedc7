// The class factory: one implementation for every row of the class table.
#pragma once

#include "core/class_table.h"

namespace marlinda {

// The factory of `entry` as interface `iid`. A factory counts as an object of the module.
HRESULT CreateClassFactory(const ClassEntry& entry, REFIID iid, void** factory) noexcept;

}  // namespace marlinda
