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

// Makes `held` hold `object`, which can be null. Adds the new reference before it releases the old
// one. The assignment in the header that comes with mingw releases first.
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

// True if both pointers refer to the same COM object; null matches nothing.
inline bool IsSameObject(IUnknown* a, IUnknown* b) {
  // Plain pointers: the smart ones of mingw compare as truth values.
  const IUnknown* const identity = TryQuery<IUnknown>(a).Get();
  return identity != nullptr && identity == TryQuery<IUnknown>(b).Get();
}

}  // namespace marlinda
