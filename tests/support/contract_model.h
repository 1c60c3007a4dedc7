// The module's contracts, read from its type library: every class with its interfaces, methods and
// parameters. Tests that loop over them cover new classes and methods automatically.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <string>
#include <vector>

#include "core/com_ptr.h"

namespace marlinda::testing {

enum class Kind { kInteger, kReal, kText, kObject, kArray, kOut };

struct Parameter {
  std::string name;
  Kind kind;
  VARTYPE type;  // or the type that an out-parameter points to; VT_UNKNOWN for every interface
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
  std::vector<IID> interfaces, events;  // the first are the default ones
  std::vector<Method> methods;          // of all interfaces, in their order
};

std::vector<Class> ClassesOfTheModule();

TYPEATTR AttributesOf(ITypeInfo* info);
// The index of the view with a vtable that a dual interface has.
constexpr UINT kVtableFace = static_cast<UINT>(-1);
ComPtr<ITypeInfo> Implemented(ITypeInfo* info, UINT index);

}  // namespace marlinda::testing
