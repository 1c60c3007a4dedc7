// The module's contracts, read from its type library: every class with its interfaces, methods and
// parameters. Tests that use this list cover new classes and methods automatically.
#pragma once

#include <windows.h>
// Must follow windows.h.
#include <oleauto.h>

#include <string>
#include <vector>

#include "core/com_ptr.h"

namespace marlinda::testing {

enum class Kind { kInteger, kReal, kText, kObject, kArray, kOut };

struct Parameter {
  std::string name;
  Kind kind;
  // For an out parameter, the type that it points to, or VT_UNKNOWN if that is an interface.
  VARTYPE type;
  IID iid;
};

struct Method {
  std::string interface_name, name;
  IID iid;
  ULONG_PTR vtable_offset;
  std::vector<Parameter> parameters;

  std::string FullName() const { return interface_name + "::" + name; }
};

struct Class {
  std::string name;
  CLSID clsid;
  std::vector<IID> interfaces, events;  // the first of each is the default
  std::vector<Method> methods;          // of all interfaces, in their order
};

std::vector<Class> ClassesOfTheModule();

TYPEATTR AttributesOf(ITypeInfo* info);
// The index that selects the vtable view of a dual interface.
constexpr UINT kVtableFace = static_cast<UINT>(-1);
ComPtr<ITypeInfo> Implemented(ITypeInfo* info, UINT index);

}  // namespace marlinda::testing
