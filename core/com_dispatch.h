// Implements IDispatch for dual interfaces with the type information inside this module.
//
// Does not use ITypeInfo::Invoke, because its implementations differ between systems. They accept
// different argument counts and VARIANT references, and report different argument indexes. Also,
// ReadWaveplot must accept an array of floats, although the type library declares shorts.
#pragma once

#include <oaidl.h>

#include "core/com_call.h"

namespace marlinda {

HRESULT DispatchGetTypeInfo(REFIID iid, UINT index, ITypeInfo** info) noexcept;
HRESULT DispatchGetIDsOfNames(REFIID iid, REFIID reserved, LPOLESTR* names, UINT count,
                              DISPID* ids) noexcept;

// Calls method `member` of `instance`, a pointer to interface `iid`.
//
// Arguments may be positional or named. They are passed by value, by reference, or as a VARIANT by
// reference. Values are coerced to the declared type. Arrays are never copied. Every array
// parameter accepts floats, even if it declares another element type. An out parameter accepts a
// reference to the declared type, or to a VARIANT, which a successful call replaces.
//
// Returns the method's success code. If the method fails, returns DISP_E_EXCEPTION with the failure
// in the exception's scode. The caller must release returned interface pointers. If the method
// itself adds no reference, DispatchInvoke adds it.
HRESULT DispatchInvoke(REFIID iid, void* instance, DISPID member, REFIID reserved, LCID locale,
                       WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                       UINT* argument_error) noexcept;

// Implements the four IDispatch methods of the dual interface `I`.
template <class I>
class Dual : public I {
 public:
  STDMETHODIMP GetTypeInfoCount(UINT* count) override { return SetOut(count, 1); }
  STDMETHODIMP GetTypeInfo(UINT index, LCID, ITypeInfo** info) override {
    return DispatchGetTypeInfo(__uuidof(I), index, info);
  }
  STDMETHODIMP GetIDsOfNames(REFIID reserved, LPOLESTR* names, UINT count, LCID,
                             DISPID* ids) override {
    return DispatchGetIDsOfNames(__uuidof(I), reserved, names, count, ids);
  }
  STDMETHODIMP Invoke(DISPID member, REFIID reserved, LCID locale, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* exception, UINT* argument_error) override {
    return DispatchInvoke(__uuidof(I), static_cast<I*>(this), member, reserved, locale, flags,
                          params, result, exception, argument_error);
  }
};

}  // namespace marlinda
