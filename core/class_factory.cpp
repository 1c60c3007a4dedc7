#include "core/class_factory.h"

#include "core/com_call.h"
#include "core/module.h"
#include "core/plain_object.h"

namespace marlinda {
namespace {

class ClassFactory final : public PlainObject<IClassFactory> {
 public:
  explicit ClassFactory(const ClassEntry& entry) noexcept : entry_(entry) {}

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
