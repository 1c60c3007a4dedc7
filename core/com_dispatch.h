// IDispatch for a dual interface: the calls are bound to that interface's own type information,
// which is loaded once from the type library inside this module and shared by all objects.
#pragma once

#include <windows.h>
// After windows.h.
#include <oaidl.h>

namespace marlinda {

HRESULT DispatchGetTypeInfo(REFIID iid, UINT index, ITypeInfo** info) noexcept;
HRESULT DispatchGetIDsOfNames(REFIID iid, REFIID reserved, LPOLESTR* names, UINT count,
                              DISPID* ids) noexcept;
HRESULT DispatchInvoke(REFIID iid, void* instance, DISPID member, REFIID reserved, WORD flags,
                       DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                       UINT* argument_error) noexcept;

// Type information of a class, for IProvideClassInfo.
HRESULT ClassTypeInfo(REFCLSID clsid, ITypeInfo** info) noexcept;

// Lets go of the shared type information; called when the module is unloaded.
void ReleaseTypeInfo() noexcept;

// Implements the four IDispatch methods of the dual interface `I`.
template <class I>
class Dual : public I {
 public:
  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 1;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT index, LCID, ITypeInfo** info) override {
    return DispatchGetTypeInfo(__uuidof(I), index, info);
  }
  STDMETHODIMP GetIDsOfNames(REFIID reserved, LPOLESTR* names, UINT count, LCID,
                             DISPID* ids) override {
    return DispatchGetIDsOfNames(__uuidof(I), reserved, names, count, ids);
  }
  STDMETHODIMP Invoke(DISPID member, REFIID reserved, LCID, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* exception, UINT* argument_error) override {
    return DispatchInvoke(__uuidof(I), static_cast<I*>(this), member, reserved, flags, params,
                          result, exception, argument_error);
  }
};

}  // namespace marlinda
