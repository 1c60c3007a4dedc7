// The base of every COM class: reference counting, QueryInterface, aggregation, IDispatch per dual
// interface, IProvideClassInfo and the module's object count. A class lists its interfaces in the
// order of its coclass. It needs only these COM declarations:
//
//   class CAudioPool final : public Object<CAudioPool, IAudioPool, IAudioWriter> {
//    public:
//     static constexpr const CLSID& kClassId = CLSID_CAudioPool;
//     ...
//   };
//   MARLINDA_DEFINE_CLASS(CAudioPool)
#pragma once

#include <ocidl.h>

#include <atomic>
#include <type_traits>

#include "core/com_call.h"
#include "core/com_dispatch.h"
#include "core/module.h"
#include "core/type_library.h"

namespace marlinda {

// The base class for interface `I`. A dual interface gets Dual<I>, which implements IDispatch.
template <class I>
using Implemented = std::conditional_t<std::is_base_of_v<IDispatch, I>, Dual<I>, I>;

template <class Derived, class... Interfaces>
class Object : public Implemented<Interfaces>..., public IProvideClassInfo2 {
 public:
  // A class with outgoing event interfaces redeclares this as true and overrides GetGUID.
  static constexpr bool kHasEvents = false;
  // Redeclare this as false in a class that no type library describes.
  static constexpr bool kHasClassInfo = true;

  // IUnknown. Delegates to the outer object if this object is aggregated, otherwise to `inner_`.
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return outer_->QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return outer_->AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return outer_->Release(); }

  // IProvideClassInfo
  STDMETHODIMP GetClassInfo(ITypeInfo** info) override {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    return FindTypeInfo(Derived::kClassId, info);
  }
  // IProvideClassInfo2. Only classes with events offer this interface and override GetGUID.
  STDMETHODIMP GetGUID(DWORD, GUID*) override { return E_NOTIMPL; }

  // Creates an object, aggregated if `outer` is not null. If the call fails, no object remains.
  static HRESULT Instantiate(IUnknown* outer, REFIID iid, void** object) noexcept {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (outer != nullptr && !IsEqualIID(iid, IID_IUnknown)) return CLASS_E_NOAGGREGATION;
    return ComCall([&] {
      auto* created = new Derived;
      if (outer != nullptr) created->outer_ = outer;
      // The reference count starts at 1, which keeps the object alive during the query. If the
      // query fails, Release destroys the object.
      const HRESULT hr = created->inner_.QueryInterface(iid, object);
      created->inner_.Release();
      return hr;
    });
  }

 protected:
  Object() noexcept : inner_(*this), outer_(&inner_) {}
  ~Object() = default;

  // Returns the object's identity: the outer unknown if the object is aggregated, else its own.
  // Does not call AddRef.
  IUnknown* OuterUnknown() noexcept { return outer_; }
  // True if the object is aggregated.
  bool IsAggregated() const noexcept { return outer_ != &inner_; }

 private:
  // The non-delegating IUnknown. If the object is aggregated, the outer object holds this IUnknown.
  // Otherwise this IUnknown is the object's identity.
  class Inner final : public IUnknown {
   public:
    explicit Inner(Object& object) noexcept : object_(object) {}
    STDMETHODIMP QueryInterface(REFIID iid, void** out) override {
      return object_.QueryInner(iid, out);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++object_.references_; }
    STDMETHODIMP_(ULONG) Release() override {
      const ULONG left = --object_.references_;
      if (left == 0) {
        // The destructor may pass this object to other code. A Release by that code must not
        // destroy the object again.
        object_.references_ = kDestroying;
        delete static_cast<Derived*>(&object_);
      }
      return left;
    }

   private:
    Object& object_;
  };

  HRESULT QueryInner(REFIID iid, void** out) noexcept {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (IsEqualIID(iid, IID_IUnknown)) {
      inner_.AddRef();
      *out = &inner_;
      return S_OK;
    }
    IUnknown* found = nullptr;
    (void)((found = Offer<Interfaces>(iid, out)) || ...);
    if (found == nullptr && Derived::kHasClassInfo && IsEqualIID(iid, IID_IProvideClassInfo)) {
      found = Give<IProvideClassInfo>(out);
    }
    if (found == nullptr && Derived::kHasEvents && IsEqualIID(iid, IID_IProvideClassInfo2)) {
      found = Give<IProvideClassInfo2>(out);
    }
    if (found == nullptr) return E_NOINTERFACE;
    found->AddRef();
    return S_OK;
  }

  // The first dual interface in the list is the default interface and provides IDispatch.
  template <class I>
  IUnknown* Offer(REFIID iid, void** out) noexcept {
    const bool asked = IsEqualIID(iid, __uuidof(I)) ||
                       (std::is_base_of_v<IDispatch, I> && IsEqualIID(iid, IID_IDispatch));
    return asked ? Give<I>(out) : nullptr;
  }

  template <class I>
  IUnknown* Give(void** out) noexcept {
    I* const face = static_cast<I*>(this);
    *out = face;
    return face;
  }

  static constexpr ULONG kDestroying = 0x40000000;

  const ModuleObjectCount module_count_;
  std::atomic<ULONG> references_{1};
  Inner inner_;
  IUnknown* outer_;
};

// Defines the creation function that the class table refers to.
#define MARLINDA_DEFINE_CLASS(Class)                                           \
  HRESULT Create##Class(IUnknown* outer, REFIID iid, void** object) noexcept { \
    return Class::Instantiate(outer, iid, object);                             \
  }

}  // namespace marlinda
