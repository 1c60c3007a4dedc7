// The smart pointer for interfaces, and its helpers.
#pragma once

#include <wrl/client.h>

#include "core/com_call.h"

namespace marlinda {

// To take over a reference, pass GetAddressOf to the function that returns it. Do not call Attach,
// which adds a reference in mingw's header.
template <class I>
using ComPtr = Microsoft::WRL::ComPtr<I>;

// Creates an object by class identifier.
template <class I>
HRESULT CreateInstance(REFCLSID clsid, ComPtr<I>& object) {
  return CoCreateInstance(clsid, nullptr, CLSCTX_ALL, __uuidof(I),
                          reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
}

// Makes `held` hold `object`, which may be null. Adds the new reference before it releases the old
// one, because releasing first could destroy the object.
template <class I>
void Hold(ComPtr<I>& held, I* object) {
  if (held.Get() != object) ComPtr<I>(object).Swap(held);
}

// Returns interface `I` of `object`, or null if `object` is null or has no such interface.
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
  // Compares plain pointers, because == of mingw's ComPtr compares only whether each is null.
  const IUnknown* const identity = TryQuery<IUnknown>(a).Get();
  return identity != nullptr && identity == TryQuery<IUnknown>(b).Get();
}

}  // namespace marlinda
