// The rules of COM for every class of the module.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"

namespace marlinda::testing {
namespace {

ComPtr<IUnknown> Query(IUnknown* object, REFIID iid) {
  ComPtr<IUnknown> result;
  object->QueryInterface(iid, reinterpret_cast<void**>(result.GetAddressOf()));
  return result;
}

// To be compared, not called.
IUnknown* IdentityOf(IUnknown* object) { return Query(object, IID_IUnknown).Get(); }

ComPtr<IClassFactory> FactoryOf(REFCLSID clsid) {
  ComPtr<IClassFactory> factory;
  Check(ModuleUnderTest::GetClassObject(clsid, IID_IClassFactory,
                                        reinterpret_cast<void**>(factory.GetAddressOf())));
  return factory;
}

std::vector<IID> InterfacesOf(const Class& known) {
  std::vector<IID> iids = {IID_IUnknown, IID_IDispatch, IID_IProvideClassInfo};
  for (const Interface& each : known.interfaces) iids.push_back(each.iid);
  if (!known.events.empty()) {
    iids.insert(iids.end(), {IID_IConnectionPointContainer, IID_IProvideClassInfo2});
  }
  return iids;
}

// An object that aggregates another.
class Outer final : public IUnknown {
 public:
  static constexpr IID kIid = {0x9e3e2e0d, 0x1c2b, 0x4a5d, {1, 2, 3, 4, 5, 6, 7, 8}};

  STDMETHODIMP QueryInterface(REFIID iid, void** out) override {
    *out = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, kIid)) {
      return inner->QueryInterface(iid, out);
    }
    *out = static_cast<IUnknown*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }

  ComPtr<IUnknown> inner;
  ULONG references = 1;
};

class EveryClass : public ::testing::Test {
 protected:
  template <class Body>
  void Each(Body body) {
    EXPECT_EQ(classes_.size(), 14U);
    for (const Class& known : classes_) {
      SCOPED_TRACE(known.name);
      body(known, Create<IUnknown>(known.clsid));
    }
  }
  const std::vector<Class> classes_ = ClassesOfTheModule();
};

TEST_F(EveryClass, HasItsInterfacesFromEachOfThemUnderOneIdentityAndNoOthers) {
  std::vector<IID> all = {IID_IMarshal, IID_IClassFactory, IID_IConnectionPointContainer,
                          IID_IProvideClassInfo2, IID_ISupportErrorInfo};
  for (const Class& known : classes_) {
    for (const Interface& each : known.interfaces) all.push_back(each.iid);
  }
  Each([&](const Class& known, const ComPtr<IUnknown>& object) {
    const std::vector<IID> iids = InterfacesOf(known);
    for (const IID& from : iids) {
      const ComPtr<IUnknown> face = Query(object.Get(), from);
      ASSERT_TRUE(face);
      EXPECT_EQ(IdentityOf(face.Get()), object.Get());
      for (const IID& to : iids) EXPECT_TRUE(Query(face.Get(), to));
    }
    for (const IID& iid : all) {
      if (std::ranges::find(iids, iid) != iids.end()) continue;
      void* out = &out;
      EXPECT_EQ(object->QueryInterface(iid, &out), E_NOINTERFACE);
      EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(object->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(ReferenceCount(object.Get()), 1U);
  });
}

TEST_F(EveryClass, DescribesItselfAndEachDualInterface) {
  Each([](const Class& known, const ComPtr<IUnknown>& object) {
    std::vector<std::pair<IID, IID>> described = {{IID_IDispatch, known.interfaces.front().iid}};
    for (const Interface& each : known.interfaces) {
      if (each.iid != IID_IPeakReader) described.emplace_back(each.iid, each.iid);
    }
    ComPtr<ITypeInfo> info;
    for (const auto& [asked, expected] : described) {
      const ComPtr<IUnknown> face = Query(object.Get(), asked);
      auto* const dispatch = static_cast<IDispatch*>(face.Get());
      UINT count = 0;
      EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
      EXPECT_EQ(count, 1U);
      ASSERT_EQ(dispatch->GetTypeInfo(0, 0, info.ReleaseAndGetAddressOf()), S_OK);
      EXPECT_EQ(AttributesOf(info.Get()).guid, expected);
      // An interface compiler was seen to write a wrong base.
      const auto face_of_vtable = Implemented(info.Get(), kVtableFace);
      EXPECT_NE(AttributesOf(face_of_vtable.Get()).wTypeFlags & TYPEFLAG_FOLEAUTOMATION, 0);
      EXPECT_EQ(AttributesOf(Implemented(face_of_vtable.Get(), 0).Get()).guid, IID_IDispatch);
      EXPECT_EQ(dispatch->GetTypeInfo(1, 0, info.ReleaseAndGetAddressOf()), DISP_E_BADINDEX);
      EXPECT_EQ(dispatch->GetTypeInfo(0, 0, nullptr), E_POINTER);
    }
    const auto self = As<IProvideClassInfo>(object);
    ASSERT_EQ(self->GetClassInfo(info.ReleaseAndGetAddressOf()), S_OK);
    EXPECT_EQ(AttributesOf(info.Get()).guid, known.clsid);
    EXPECT_EQ(self->GetClassInfo(nullptr), E_POINTER);
    if (known.events.empty()) return;
    GUID source = {};
    EXPECT_EQ(As<IProvideClassInfo2>(object)->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source),
              S_OK);
    EXPECT_EQ(source, known.events.front().iid);
  });
}

TEST_F(EveryClass, LeavesCountingAndQueriesToAnOuterObject) {
  Each([](const Class& known, const ComPtr<IUnknown>&) {
    const auto factory = FactoryOf(known.clsid);
    Outer outer;
    ASSERT_EQ(factory->CreateInstance(&outer, IID_IUnknown,
                                      reinterpret_cast<void**>(outer.inner.GetAddressOf())),
              S_OK);
    EXPECT_EQ(outer.references, 1U) << "creating must not hold the outer object";
    for (const IID& iid : InterfacesOf(known)) {
      if (iid == IID_IUnknown) continue;
      const ComPtr<IUnknown> face = Query(outer.inner.Get(), iid);
      ASSERT_TRUE(face);
      EXPECT_EQ(outer.references, 2U) << "an interface counts on the outer object";
      EXPECT_EQ(IdentityOf(face.Get()), &outer);
      EXPECT_TRUE(Query(face.Get(), Outer::kIid));
    }
    EXPECT_EQ(IdentityOf(outer.inner.Get()), outer.inner.Get());
    EXPECT_FALSE(Query(outer.inner.Get(), Outer::kIid)) << "the inner unknown delegates";
    EXPECT_EQ(outer.inner.Reset(), 0U);

    void* out = &out;
    EXPECT_EQ(factory->CreateInstance(&outer, IID_IDispatch, &out), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(factory->CreateInstance(nullptr, Outer::kIid, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(outer.references, 1U);
  });
}

// All classes share their base.
TEST(OneClass, CountsReferencesOfManyThreads) {
  constexpr int kTimes = 4'000'000;
  const auto object = Create<IUnknown>(CLSID_CNullReader);
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([face = object.Get()] {
      for (int i = 0; i < kTimes; ++i) face->AddRef();
      for (int i = 0; i < kTimes; ++i) face->Release();
    });
  }
  threads.clear();
  EXPECT_EQ(ReferenceCount(object.Get()), 1U);
}

TEST_F(EveryClass, KeepsTheModuleLoadedByFactoriesObjectsAndServerLocks) {
  const auto can_unload = ModuleUnderTest::CanUnloadNow;
  // The factories that are registered for this process keep it loaded, too.
  ModuleUnderTest::Revoke();
  EXPECT_EQ(can_unload(), S_OK);
  for (const Class& known : classes_) {
    SCOPED_TRACE(known.name);
    ComPtr<IClassFactory> factory = FactoryOf(known.clsid);
    EXPECT_EQ(can_unload(), S_FALSE) << "a factory";
    // An object may create others by class identifier.
    ModuleUnderTest::Load();
    auto object = Create<IUnknown>(known.clsid);
    ModuleUnderTest::Revoke();
    factory.Reset();
    EXPECT_EQ(can_unload(), S_FALSE) << "an object";
    object.Reset();
    EXPECT_EQ(can_unload(), S_OK);
  }
  const auto lock = [](BOOL locks) { return FactoryOf(CLSID_CNullReader)->LockServer(locks); };
  for (int times = 0; times < 2; ++times) {
    EXPECT_EQ(lock(TRUE), S_OK);
    EXPECT_EQ(can_unload(), S_FALSE) << "a lock";
    EXPECT_EQ(lock(FALSE), S_OK);
    // One unlock too many must not cancel a later lock.
    EXPECT_EQ(lock(FALSE), E_UNEXPECTED);
    EXPECT_EQ(can_unload(), S_OK);
  }
  ModuleUnderTest::Load();
}

TEST(Module, ReportsWhyItHasNoClassObject) {
  void* out = &out;
  const auto get = ModuleUnderTest::GetClassObject;
  EXPECT_EQ(get(CLSID_CNullReader, IID_IDispatch, &out), E_NOINTERFACE);
  EXPECT_EQ(get(Outer::kIid, IID_IClassFactory, &out), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(get(CLSID_CNullReader, IID_IClassFactory, nullptr), E_POINTER);
}

}  // namespace
}  // namespace marlinda::testing
