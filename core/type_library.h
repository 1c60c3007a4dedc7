// The type library inside this module: type information by identifier, and the methods of a dual
// interface as IDispatch::Invoke needs them. Both are read once and shared by all objects.
#pragma once

#include <windows.h>
// After windows.h.
#include <oaidl.h>

#include <vector>

namespace marlinda {

struct Parameter {
  enum class Role { kIn, kOut, kResult };

  Role role = Role::kIn;
  // What travels, without the pointer of an out parameter. VT_ARRAY stands for an array of
  // `element`, VT_DISPATCH and VT_UNKNOWN for an interface pointer.
  VARTYPE type = VT_EMPTY;
  VARTYPE element = VT_EMPTY;
  IID iid = {};
};

struct Method {
  DISPID id = DISPID_UNKNOWN;
  ULONG_PTR vtable_offset = 0;
  std::vector<Parameter> parameters;
};

using MethodTable = std::vector<Method>;

// Type information of an interface or a class.
HRESULT FindTypeInfo(REFGUID guid, ITypeInfo** info) noexcept;

// The methods of the dual interface `iid`, valid until ReleaseTypeInfo. Throws HResultError.
const MethodTable& MethodsOf(REFIID iid);

// Lets go of everything; called when the module is unloaded, when no object is left to use it.
void ReleaseTypeInfo() noexcept;

}  // namespace marlinda
