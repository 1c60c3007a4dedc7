#include "core/class_factory.h"

#include <atomic>

#include "core/com_call.h"
#include "core/module.h"

namespace marlinda {
namespace {

class ClassFactory final : public IClassFactory {
 public:
  explicit ClassFactory(const ClassEntry& entry) noexcept : entry_(entry) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IClassFactory)) {
      return E_NOINTERFACE;
    }
    AddRef();
    *object = static_cast<IClassFactory*>(this);
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    return entry_.create(outer, iid, object);
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    if (lock == FALSE) return TheModule().Unlock() ? S_OK : E_UNEXPECTED;
    TheModule().Lock();
    return S_OK;
  }

 private:
  const ClassEntry& entry_;
  const ModuleObjectCount module_count_;
  std::atomic<ULONG> references_{1};
};

}  // namespace

HRESULT CreateClassFactory(const ClassEntry& entry, REFIID iid, void** factory) noexcept {
  return ComCall([&] {
    auto* created = new ClassFactory(entry);
    const HRESULT hr = created->QueryInterface(iid, factory);
    created->Release();
    return hr;
  });
}

}  // namespace marlinda
