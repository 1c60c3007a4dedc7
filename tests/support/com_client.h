// What every component test needs to be a client of the module: the module loaded and its classes
// creatable by class identifier, and short ways to make arrays and strings.
#pragma once

#include <marlinda.h>

#include <concepts>
#include <span>
#include <string>
#include <vector>

#include "core/com_ptr.h"
#include "core/text.h"

namespace marlinda::testing {

// The module under test: ..\Tessaly.dll beside the folder of the test program, or what the
// environment variable TESSALY_DLL names.
class ModuleUnderTest {
 public:
  // Loads the module and makes its classes known to this process alone, without touching the
  // registry.
  static void Load();
  // Takes the classes back. The module stays loaded.
  static void Revoke();
  // Takes the classes back and returns whether no object and no thread of the module is left.
  static bool RevokeAndSeeUnused();

  static HMODULE Handle();
  static std::wstring Path();
  static HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** factory);
  static HRESULT CanUnloadNow();
};

// Creates an object of the class, as its interface `I`. Fails the test when that does not work.
template <class I>
ComPtr<I> Create(REFCLSID clsid);

// The object as another of its interfaces; null when it has none.
template <class I>
ComPtr<I> As(IUnknown* object) {
  return TryQuery<I>(object);
}
template <class I, class J>
ComPtr<I> As(const ComPtr<J>& object) {
  return TryQuery<I>(object.Get());
}

// An array of floats owned by the test.
class Floats {
 public:
  explicit Floats(std::size_t count, float value = 0.0F, LONG lower_bound = 0);
  explicit Floats(std::span<const float> values);
  Floats(const Floats&) = delete;
  Floats& operator=(const Floats&) = delete;
  ~Floats();

  SAFEARRAY* array() const { return array_; }
  operator SAFEARRAY*() const { return array_; }
  std::span<float> values() const;
  std::vector<float> ToVector() const;
  // A template, because an index of another type than size_t could also index the converted
  // pointer.
  template <std::integral Index>
  float& operator[](Index index) const {
    return values()[static_cast<std::size_t>(index)];
  }

 private:
  SAFEARRAY* array_;
};

// An array of another element type or shape, to be refused.
class ForeignArray {
 public:
  explicit ForeignArray(VARTYPE type, UINT dimensions = 1, ULONG count = 8);
  ForeignArray(const ForeignArray&) = delete;
  ForeignArray& operator=(const ForeignArray&) = delete;
  ~ForeignArray();
  operator SAFEARRAY*() const { return array_; }

 private:
  SAFEARRAY* array_;
};

class Bstr {
 public:
  Bstr() = default;
  explicit Bstr(const wchar_t* text) : text_(SysAllocString(text)) {}
  explicit Bstr(const std::wstring& text) : Bstr(text.c_str()) {}
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  ~Bstr() { SysFreeString(text_); }
  operator BSTR() const { return text_; }
  // For an out parameter; frees what was held.
  BSTR* Receive() {
    SysFreeString(text_);
    text_ = nullptr;
    return &text_;
  }
  std::wstring str() const { return text_ == nullptr ? std::wstring() : std::wstring(text_); }

 private:
  BSTR text_ = nullptr;
};

// A fresh folder below the system's temporary folder, removed with all its files at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();
  const std::wstring& path() const { return path_; }
  std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }

 private:
  std::wstring path_;
};

std::vector<unsigned char> ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, std::span<const unsigned char> bytes);

// The reference count that Release returns.
ULONG ReferenceCount(IUnknown* object);

// Waits until the task has ended; false after `seconds`, for which CTest ends the test as hung.
bool WaitForTask(ICoreTask* task, int seconds = 600);

template <class I>
ComPtr<I> Create(REFCLSID clsid) {
  ComPtr<I> object;
  const HRESULT hr = CreateInstance(clsid, object);
  if (FAILED(hr)) throw HResultError(hr);
  return object;
}

}  // namespace marlinda::testing
