// The classes of a module, for its class factories and registration. To add a class, add a row to
// the module's class_table.cpp.
#pragma once

#include <windows.h>

#include <span>

namespace marlinda {

using CreationFunction = HRESULT(IUnknown* outer, REFIID iid, void** object) noexcept;

struct ClassEntry {
  const CLSID* clsid;
  const wchar_t* name;  // such as CAudioPool, whose ProgID is Marlinda.AudioPool.1
  CreationFunction* create;
};

std::span<const ClassEntry> ClassTable() noexcept;

}  // namespace marlinda
