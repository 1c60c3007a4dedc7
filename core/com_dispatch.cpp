#include "core/com_dispatch.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>

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

// The module's type library and the type information taken from it so far. Reset only when the
// module is unloaded, when no object is left to use it.
class TypeInfoCache {
 public:
  HRESULT Find(REFGUID guid, ITypeInfo** info) {
    const std::lock_guard lock(mutex_);
    if (!library_) {
      const std::wstring path = TheModule().Path();
      Check(LoadTypeLibEx(path.c_str(), REGKIND_NONE, library_.GetAddressOf()));
    }
    ComPtr<ITypeInfo>& entry = entries_[guid];
    if (!entry) {
      const HRESULT hr = library_->GetTypeInfoOfGuid(guid, entry.GetAddressOf());
      if (FAILED(hr)) {
        entries_.erase(guid);
        return hr;
      }
    }
    return entry.CopyTo(info);
  }

  void Clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
    library_.Reset();
  }

 private:
  std::mutex mutex_;
  ComPtr<ITypeLib> library_;
  std::map<GUID, ComPtr<ITypeInfo>, GuidLess> entries_;
};

// Never destroyed by the runtime: at process exit the automation library may be gone already.
TypeInfoCache& Cache() {
  static TypeInfoCache* const cache = new TypeInfoCache;
  return *cache;
}

HRESULT FindTypeInfo(REFGUID guid, ITypeInfo** info) noexcept {
  return ComCall([&] { return Cache().Find(guid, info); });
}

}  // namespace

HRESULT DispatchGetTypeInfo(REFIID iid, UINT index, ITypeInfo** info) noexcept {
  if (info == nullptr) return E_POINTER;
  *info = nullptr;
  if (index != 0) return DISP_E_BADINDEX;
  return FindTypeInfo(iid, info);
}

HRESULT DispatchGetIDsOfNames(REFIID iid, REFIID reserved, LPOLESTR* names, UINT count,
                              DISPID* ids) noexcept {
  if (names == nullptr || ids == nullptr) return E_POINTER;
  if (!IsEqualIID(reserved, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  ComPtr<ITypeInfo> info;
  const HRESULT hr = FindTypeInfo(iid, info.GetAddressOf());
  return FAILED(hr) ? hr : info->GetIDsOfNames(names, count, ids);
}

HRESULT DispatchInvoke(REFIID iid, void* instance, DISPID member, REFIID reserved, WORD flags,
                       DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                       UINT* argument_error) noexcept {
  if (!IsEqualIID(reserved, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  if (params == nullptr) return E_POINTER;
  ComPtr<ITypeInfo> info;
  const HRESULT hr = FindTypeInfo(iid, info.GetAddressOf());
  if (FAILED(hr)) return hr;
  return info->Invoke(instance, member, flags, params, result, exception, argument_error);
}

HRESULT ClassTypeInfo(REFCLSID clsid, ITypeInfo** info) noexcept {
  if (info == nullptr) return E_POINTER;
  *info = nullptr;
  return FindTypeInfo(clsid, info);
}

void ReleaseTypeInfo() noexcept { Cache().Clear(); }

}  // namespace marlinda
