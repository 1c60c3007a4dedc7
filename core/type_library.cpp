#include "core/type_library.h"

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "core/com_call.h"
#include "core/com_ptr.h"
#include "core/module.h"

namespace marlinda {
namespace {

struct GuidLess {
  bool operator()(const GUID& a, const GUID& b) const noexcept {
    return std::memcmp(&a, &b, sizeof(GUID)) < 0;
  }
};

// The next two functions return a description that `info` owns. The deleter returns it to `info`.
auto AttributesOf(ITypeInfo* info) {
  TYPEATTR* attributes = nullptr;
  Check(info->GetTypeAttr(&attributes));
  const auto give_back = [info](TYPEATTR* borrowed) { info->ReleaseTypeAttr(borrowed); };
  return std::unique_ptr<TYPEATTR, decltype(give_back)>(attributes, give_back);
}

auto FunctionOf(ITypeInfo* info, UINT index) {
  FUNCDESC* function = nullptr;
  Check(info->GetFuncDesc(index, &function));
  const auto give_back = [info](FUNCDESC* borrowed) { info->ReleaseFuncDesc(borrowed); };
  return std::unique_ptr<FUNCDESC, decltype(give_back)>(function, give_back);
}

Parameter ReadParameter(ITypeInfo* info, const ELEMDESC& description) {
  Parameter parameter;
  const TYPEDESC* type = &description.tdesc;
  int pointers = 0;
  for (; type->vt == VT_PTR; type = type->lptdesc) ++pointers;
  switch (type->vt) {
    case VT_USERDEFINED: {
      ComPtr<ITypeInfo> referred;
      Check(info->GetRefTypeInfo(type->hreftype, referred.GetAddressOf()));
      const auto attributes = AttributesOf(referred.Get());
      parameter.type = attributes->typekind == TKIND_DISPATCH ? VT_DISPATCH : VT_UNKNOWN;
      parameter.iid = attributes->guid;
      --pointers;
      break;
    }
    case VT_UNKNOWN:
    case VT_DISPATCH:
      parameter.type = type->vt;
      parameter.iid = type->vt == VT_UNKNOWN ? IID_IUnknown : IID_IDispatch;
      break;
    case VT_SAFEARRAY:
      parameter.type = VT_ARRAY;
      parameter.element = type->lptdesc->vt;
      break;
    default:
      parameter.type = type->vt;
  }
  const USHORT flags = description.paramdesc.wParamFlags;
  if (pointers > 0) {
    parameter.role =
        (flags & PARAMFLAG_FRETVAL) != 0 ? Parameter::Role::kResult : Parameter::Role::kOut;
  }
  return parameter;
}

MethodTable ReadMethods(ITypeInfo* dispatch_face) {
  // Uses the vtable's description, because it lists results as parameters and omits IDispatch.
  HREFTYPE reference = 0;
  ComPtr<ITypeInfo> info;
  Check(dispatch_face->GetRefTypeOfImplType(static_cast<UINT>(-1), &reference));
  Check(dispatch_face->GetRefTypeInfo(reference, info.GetAddressOf()));
  const auto attributes = AttributesOf(info.Get());
  MethodTable methods;
  for (UINT i = 0; i < attributes->cFuncs; ++i) {
    const auto function = FunctionOf(info.Get(), i);
    Method method;
    method.id = function->memid;
    method.vtable_offset = static_cast<ULONG_PTR>(function->oVft);
    for (SHORT k = 0; k < function->cParams; ++k) {
      method.parameters.push_back(ReadParameter(info.Get(), function->lprgelemdescParam[k]));
    }
    methods.push_back(std::move(method));
  }
  return methods;
}

class TypeLibrary {
 public:
  HRESULT Find(REFGUID guid, ITypeInfo** info) {
    const std::lock_guard lock(mutex_);
    return FindLocked(guid, info);
  }

  const MethodTable& Methods(REFIID iid) {
    const std::lock_guard lock(mutex_);
    const auto known = methods_.find(iid);
    if (known != methods_.end()) return known->second;
    ComPtr<ITypeInfo> info;
    Check(FindLocked(iid, info.GetAddressOf()));
    return methods_.emplace(iid, ReadMethods(info.Get())).first->second;
  }

  void Clear() {
    const std::lock_guard lock(mutex_);
    methods_.clear();
    entries_.clear();
    library_.Reset();
  }

 private:
  HRESULT FindLocked(REFGUID guid, ITypeInfo** info) {
    const auto known = entries_.find(guid);
    if (known != entries_.end()) return known->second.CopyTo(info);
    if (!library_) {
      // LoadTypeLibEx accepts no path longer than MAX_PATH.
      Check(LoadTypeLibEx(TheModule().Path().c_str(), REGKIND_NONE, library_.GetAddressOf()));
    }
    ComPtr<ITypeInfo> found;
    const HRESULT hr = library_->GetTypeInfoOfGuid(guid, found.GetAddressOf());
    if (FAILED(hr)) return hr;
    entries_.emplace(guid, found);
    return found.CopyTo(info);
  }

  std::mutex mutex_;
  ComPtr<ITypeLib> library_;
  std::map<GUID, ComPtr<ITypeInfo>, GuidLess> entries_;
  std::map<GUID, MethodTable, GuidLess> methods_;
};

// The object is never destroyed. Its destructor would call the automation library, which may
// already be unloaded at process end.
TypeLibrary& Library() {
  alignas(TypeLibrary) static std::byte storage[sizeof(TypeLibrary)];
  static auto* const library = new (storage) TypeLibrary;
  return *library;
}

}  // namespace

HRESULT FindTypeInfo(REFGUID guid, ITypeInfo** info) noexcept {
  return ComCall([&] { return Library().Find(guid, info); });
}

const MethodTable& MethodsOf(REFIID iid) { return Library().Methods(iid); }

void ReleaseTypeInfo() noexcept { Library().Clear(); }

}  // namespace marlinda
