// A pointer to T for each thread, null until set. It replaces thread_local, because mingw's
// thread_local leaks memory when a thread ends, and terminates the process when memory is short.
// Portable code may include this header. Outside Windows it uses thread_local.
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
  // Returns false and changes nothing if the system has no memory for the pointer.
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
