// The classes of this module. Class factories, registration and the tests all read this one table;
// adding a class is adding a row in module/class_table.cpp.
#pragma once

#include <windows.h>

#include <span>

namespace marlinda {

struct ClassEntry {
  const CLSID* clsid;
  const wchar_t* name;     // class name; the friendly name is "<name> Object"
  const wchar_t* prog_id;  // versioned, such as "Marlinda.AudioPool.1"
  // Creates an object; null for a class that this version does not offer yet.
  HRESULT (*create)(IUnknown* outer, REFIID iid, void** object) noexcept;
};

std::span<const ClassEntry> ClassTable() noexcept;

}  // namespace marlinda
