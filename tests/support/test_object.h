// The IUnknown and IDispatch methods of objects that tests implement.
#pragma once

#include <windows.h>
// Must follow windows.h.
#include <oaidl.h>

#include <atomic>
#include <type_traits>
#include <utility>

#include "core/com_ptr.h"

namespace marlinda::testing {

// Implements IDispatch for a dual interface. Every method returns E_NOTIMPL.
template <class I>
class WithoutAutomation : public I {};

template <class I>
requires std::is_base_of_v<IDispatch, I>
class WithoutAutomation<I> : public I {
 public:
  STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                      UINT*) override {
    return E_NOTIMPL;
  }
};

// A COM object of a test. Create it with MakeObject or as a local variable. The initial reference
// belongs to the test.
template <class... Interfaces>
class TestObject : public WithoutAutomation<Interfaces>... {
 public:
  TestObject(const TestObject&) = delete;
  TestObject& operator=(const TestObject&) = delete;

  // Returns the number of references that others hold.
  long Held() const { return references_ - 1; }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    ((*object == nullptr && IsAsked<Interfaces>(iid)
          ? void(*object = static_cast<Interfaces*>(this))
          : void()),
     ...);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references_); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --references_;
    if (left == 0) delete this;
    return static_cast<ULONG>(left);
  }

 protected:
  TestObject() = default;
  virtual ~TestObject() = default;

 private:
  template <class I>
  static bool IsAsked(REFIID iid) {
    return IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(I)) ||
           (std::is_base_of_v<IDispatch, I> && IsEqualIID(iid, IID_IDispatch));
  }

  std::atomic<long> references_ = 1;
};

template <class T, class... Arguments>
ComPtr<T> MakeObject(Arguments&&... arguments) {
  ComPtr<T> object;
  *object.GetAddressOf() = new T(std::forward<Arguments>(arguments)...);
  return object;
}

}  // namespace marlinda::testing
