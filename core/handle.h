// Owners of Windows handles, with one traits struct per kind of handle. Closing a handle preserves
// the thread's last error, so that cleaning up never hides why a call failed.
#pragma once

#include <windows.h>

#include <utility>

namespace marlinda {

template <class Traits>
class Handle {
 public:
  using Raw = typename Traits::Raw;

  Handle() noexcept = default;
  explicit Handle(Raw raw) noexcept : raw_(raw) {}
  Handle(Handle&& other) noexcept : raw_(other.Detach()) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) Reset(other.Detach());
    return *this;
  }
  ~Handle() { Reset(); }

  Raw get() const noexcept { return raw_; }
  explicit operator bool() const noexcept { return raw_ != Traits::Invalid(); }

  Raw Detach() noexcept { return std::exchange(raw_, Traits::Invalid()); }

  void Reset(Raw raw = Traits::Invalid()) noexcept {
    const Raw old = std::exchange(raw_, raw);
    if (old == Traits::Invalid()) return;
    const DWORD error = GetLastError();
    Traits::Close(old);
    SetLastError(error);
  }

  // Closes the current handle and returns the address at which a function can store a new handle.
  Raw* Receive() noexcept {
    Reset();
    return &raw_;
  }

 private:
  Raw raw_ = Traits::Invalid();
};

struct FileTraits {
  using Raw = HANDLE;
  static Raw Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Raw raw) noexcept { CloseHandle(raw); }
};

struct KernelObjectTraits {
  using Raw = HANDLE;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { CloseHandle(raw); }
};

struct RegistryKeyTraits {
  using Raw = HKEY;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { RegCloseKey(raw); }
};

using FileHandle = Handle<FileTraits>;
using KernelHandle = Handle<KernelObjectTraits>;
using RegistryKey = Handle<RegistryKeyTraits>;

}  // namespace marlinda
