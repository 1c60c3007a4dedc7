// The boundary between C++ and COM. The engine's code throws exceptions, but interface methods
// return HRESULTs. ComCall turns the exceptions into HRESULTs.
#pragma once

#include <windows.h>

#include <new>
#include <type_traits>
#include <utility>

namespace marlinda {

// The exception that carries an HRESULT to ComCall.
class HResultError {
 public:
  explicit HResultError(HRESULT code) noexcept : code_(code) {}
  HRESULT code() const noexcept { return code_; }

 private:
  HRESULT code_;
};

// Throws HResultError if `hr` is a failure. Otherwise returns `hr`.
inline HRESULT Check(HRESULT hr) {
  if (FAILED(hr)) throw HResultError(hr);
  return hr;
}

// Returns GetLastError as an HRESULT, or E_FAIL if GetLastError reports no error.
inline HRESULT LastErrorResult() noexcept {
  const DWORD error = GetLastError();
  return error == ERROR_SUCCESS ? E_FAIL : HRESULT_FROM_WIN32(error);
}

// Runs the body of an interface method and turns exceptions into HRESULTs. The body returns the
// method's HRESULT, or nothing for S_OK.
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

// Stores values through out-pointers: SetOut(pnRate, rate, pnChannels, channels). Returns E_POINTER
// and stores nothing if a pointer is null.
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
