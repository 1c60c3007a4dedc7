// The smart pointer for interfaces and the few helpers that go with it.
#pragma once

#include <wrl/client.h>

#include "core/com_call.h"

namespace marlinda {

// Take over a reference with *p.GetAddressOf() or ReceiveVoid, never with Attach: the Attach of the
// header that comes with mingw adds a reference.
template <class I>
using ComPtr = Microsoft::WRL::ComPtr<I>;

// Creates an object by class identifier, as any client does.
template <class I>
HRESULT CreateInstance(REFCLSID clsid, ComPtr<I>& object) {
  return CoCreateInstance(clsid, nullptr, CLSCTX_ALL, __uuidof(I),
                          reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
}

// Makes `held` hold another object, or none: the new one gets its reference before the old one
// loses its own. The assignment of a plain pointer in the header that comes with mingw does it the
// other way round.
template <class I>
void Hold(ComPtr<I>& held, I* object) {
  if (held.Get() != object) ComPtr<I>(object).Swap(held);
}

// Another interface of the same object; null when `object` is null or has none.
template <class I>
ComPtr<I> TryQuery(IUnknown* object) {
  ComPtr<I> result;
  if (object != nullptr) {
    object->QueryInterface(__uuidof(I), reinterpret_cast<void**>(result.GetAddressOf()));
  }
  return result;
}

// Whether both are interfaces of one object; no object is the same as none.
inline bool IsSameObject(IUnknown* a, IUnknown* b) {
  // Plain pointers: the smart ones of mingw compare as truth values.
  const IUnknown* const identity = TryQuery<IUnknown>(a).Get();
  return identity != nullptr && identity == TryQuery<IUnknown>(b).Get();
}

}  // namespace marlinda
