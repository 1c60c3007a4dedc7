// IDispatch for a dual interface: calls are bound to that interface's own type information, from
// the type library inside this module.
//
// Invoke is our own rather than the platform's ITypeInfo::Invoke, so that every platform answers
// alike (platforms differ in the counts they accept, in the argument index they report and in the
// variables of scripts that they take), and because a method may take another array than its
// declaration says.
#pragma once

#include <oaidl.h>

#include "core/com_call.h"

namespace marlinda {

HRESULT DispatchGetTypeInfo(REFIID iid, UINT index, ITypeInfo** info) noexcept;
HRESULT DispatchGetIDsOfNames(REFIID iid, REFIID reserved, LPOLESTR* names, UINT count,
                              DISPID* ids) noexcept;

// Calls a method of `instance`, the vtable of interface `iid`.
//
// Arguments: positional or named; by value, by reference, or as a VARIANT by reference. Values are
// coerced to the declared type. An array is passed on itself, never copied, and may be of floats
// whatever element type is declared: each array parameter of the engine takes floats. An out
// parameter takes a reference to the declared type, to which the method writes directly, or a
// VARIANT, which is replaced when the method succeeds.
//
// Results: a success code of the method as it is; for a failure DISP_E_EXCEPTION, with the failure
// in the exception's scode. Interface pointers that come out belong to the caller, also where the
// method itself only lends them.
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
