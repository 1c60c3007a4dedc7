// The boundary between C++ and COM. Inside, code throws and uses RAII; an interface method returns
// an HRESULT. ComCall turns exceptions into HRESULTs.
#pragma once

#include <windows.h>

#include <new>
#include <type_traits>
#include <utility>

namespace marlinda {

// Carries an HRESULT to the interface boundary.
class HResultError {
 public:
  explicit HResultError(HRESULT code) noexcept : code_(code) {}
  HRESULT code() const noexcept { return code_; }

 private:
  HRESULT code_;
};

// Throws when `hr` is a failure; success codes pass through.
inline HRESULT Check(HRESULT hr) {
  if (FAILED(hr)) throw HResultError(hr);
  return hr;
}

// The HRESULT of the last failed system call; E_FAIL when GetLastError gives no error.
inline HRESULT LastErrorResult() noexcept {
  const DWORD error = GetLastError();
  return error == ERROR_SUCCESS ? E_FAIL : HRESULT_FROM_WIN32(error);
}

// Runs the body of an interface method. The body returns the method's HRESULT or throws; a body
// that returns nothing means S_OK.
template <class Body>
HRESULT ComCall(Body&& body) noexcept {
  try {
    if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
      std::forward<Body>(body)();
      return S_OK;
    } else {
      return std::forward<Body>(body)();
    }
  } catch (const HResultError& error) {
    return error.code();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

// Stores values through out-pointers: SetOut(pnRate, rate, pnChannels, channels). E_POINTER, and
// nothing stored, when a pointer is null.
template <class T, class... Rest>
HRESULT SetOut(T* out, std::type_identity_t<T> value, Rest... rest) noexcept {
  if (out == nullptr) return E_POINTER;
  if constexpr (sizeof...(rest) > 0) {
    if (FAILED(SetOut(rest...))) return E_POINTER;
  }
  *out = value;
  return S_OK;
}

}  // namespace marlinda
