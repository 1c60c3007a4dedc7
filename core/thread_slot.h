// The current T of each thread, null until it sets one. Not thread_local: what mingw's runtime
// allocates for that stays behind with every thread that ends, and it ends the process when there
// is no memory for it. So Windows is asked itself, in this one header that kernels may include.
#pragma once

#ifdef _WIN32
#include <windows.h>
#endif

namespace marlinda {

template <class T>
class ThreadSlot {
 public:
  ThreadSlot() = delete;

#ifdef _WIN32
  static T* Get() noexcept { return static_cast<T*>(TlsGetValue(index_.value)); }
  // False, and nothing changed, when the system has no memory for it.
  static bool Set(T* current) noexcept {
    return TlsSetValue(index_.value, const_cast<void*>(static_cast<const void*>(current))) != FALSE;
  }

 private:
  struct Index {
    Index() noexcept : value(TlsAlloc()) {}
    ~Index() { TlsFree(value); }
    const DWORD value;
  };
  static inline const Index index_;
#else
  static T* Get() noexcept { return current_; }
  static bool Set(T* current) noexcept {
    current_ = current;
    return true;
  }

 private:
  static inline thread_local T* current_ = nullptr;
#endif
};

}  // namespace marlinda
