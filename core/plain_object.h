// The base of a COM object with one interface, without class identifier or aggregation. In the
// engine's modules, derived classes add a ModuleObjectCount.
#pragma once

#include <unknwn.h>

#include <atomic>

namespace marlinda {

// Create the object with new. The creator owns the first reference.
template <class Interface>
class PlainObject : public Interface {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, __uuidof(Interface))) {
      return E_NOINTERFACE;
    }
    *object = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

 protected:
  PlainObject() noexcept = default;
  virtual ~PlainObject() = default;

 private:
  std::atomic<ULONG> references_{1};
};

}  // namespace marlinda
