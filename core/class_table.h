// The classes of this module, for class factories and registration. A new class is a new row in
// module/class_table.cpp.
#pragma once

#include <windows.h>

#include <span>

namespace marlinda {

struct ClassEntry {
  const CLSID* clsid;
  const wchar_t* name;     // class name; the friendly name is "<name> Object"
  const wchar_t* prog_id;  // versioned, such as "Marlinda.AudioPool.1"
  HRESULT (*create)(IUnknown* outer, REFIID iid, void** object) noexcept;
};

std::span<const ClassEntry> ClassTable() noexcept;

}  // namespace marlinda
