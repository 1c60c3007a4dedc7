// Reads the type library inside this module: type information by identifier, and the methods of a
// dual interface for IDispatch::Invoke. All objects share the results.
#pragma once

#include <oaidl.h>

#include <vector>

namespace marlinda {

struct Parameter {
  enum class Role { kIn, kOut, kResult };

  Role role = Role::kIn;
  // The type of the value or, for an out parameter, the type that the pointer refers to. VT_ARRAY
  // means an array of `element`. VT_DISPATCH and VT_UNKNOWN mean a pointer to interface `iid`.
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

// Returns the type information of an interface or a class.
HRESULT FindTypeInfo(REFGUID guid, ITypeInfo** info) noexcept;

// Returns the methods of dual interface `iid`, valid until ReleaseTypeInfo. Throws HResultError.
const MethodTable& MethodsOf(REFIID iid);

// Releases all type information. Call it when the module is unloaded and no object exists.
void ReleaseTypeInfo() noexcept;

}  // namespace marlinda
