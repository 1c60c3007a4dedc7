// Helpers for clients of the module: class objects, arrays, texts and folders.
#pragma once

#include <marlinda.h>

#include <concepts>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "core/com_ptr.h"
#include "core/text.h"

namespace marlinda::testing {

// The module under test: ..\Tessaly.dll relative to the folder of the test program, or the file
// that the environment variable TESSALY_DLL names.
class ModuleUnderTest {
 public:
  // Loads the module and registers its classes for the calling apartment, without the registry.
  static void Load();
  // Revokes the classes. The module stays loaded.
  static void Revoke();
  // Revokes the classes. Returns true if no object and no thread of the module is left.
  static bool RevokeAndSeeUnused();

  static HMODULE Handle();
  static std::wstring Path();
  static std::wstring Sibling(const std::wstring& name);  // a file beside the module
  static HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** factory);
  static HRESULT CanUnloadNow();
};

// Registers the module's classes for the calling apartment while this object exists.
class Registration {
 public:
  Registration();
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
  ~Registration();

 private:
  std::vector<DWORD> cookies_;
};

// The main function of a client. Runs `body` in an apartment with the module loaded. Returns 1
// after an exception or if objects or threads are left, otherwise the result of `body`.
int RunClient(const std::function<int()>& body);

// Returns an export of a library. Throws if the library lacks it.
void* ExportOf(HMODULE library, const char* name);
template <class Function>
Function* ExportAs(HMODULE library, const char* name) {
  return reinterpret_cast<Function*>(ExportOf(library, name));
}

template <class I>
ComPtr<I> Create(REFCLSID clsid) {
  ComPtr<I> object;
  Check(CreateInstance(clsid, object));
  return object;
}

// Returns another interface of the object, or null if the object lacks it.
template <class I>
ComPtr<I> As(IUnknown* object) {
  return TryQuery<I>(object);
}
template <class I, class J>
ComPtr<I> As(const ComPtr<J>& object) {
  return TryQuery<I>(object.Get());
}

// A SAFEARRAY of any element type and shape, including those that the engine refuses.
class ForeignArray {
 public:
  explicit ForeignArray(VARTYPE type, UINT dimensions = 1, ULONG count = 8, LONG lower_bound = 0);
  ForeignArray(const ForeignArray&) = delete;
  ForeignArray& operator=(const ForeignArray&) = delete;
  ~ForeignArray() { SafeArrayDestroy(array_); }
  operator SAFEARRAY*() const { return array_; }

 private:
  SAFEARRAY* array_;
};

class Floats : public ForeignArray {
 public:
  explicit Floats(std::size_t count, float value = 0.0F, LONG lower_bound = 0);
  explicit Floats(std::span<const float> values);

  std::span<float> values() const;
  std::vector<float> ToVector() const { return {values().begin(), values().end()}; }
  // A template fits every index type exactly, so a call is never ambiguous with [] on the object
  // converted to SAFEARRAY*.
  template <std::integral Index>
  float& operator[](Index index) const {
    return values()[static_cast<std::size_t>(index)];
  }
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
  // Frees the current text. Returns the address for an out parameter.
  BSTR* Receive() {
    SysFreeString(std::exchange(text_, nullptr));
    return &text_;
  }
  std::wstring str() const { return text_ == nullptr ? std::wstring() : std::wstring(text_); }

 private:
  BSTR text_ = nullptr;
};

// A new folder in the system's temporary folder, deleted with its files by the destructor.
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

// Returns the reference count that Release reports.
ULONG ReferenceCount(IUnknown* object);

// Waits until the task has ended. Returns false if the query fails.
bool WaitForTask(ICoreTask* task);

}  // namespace marlinda::testing
