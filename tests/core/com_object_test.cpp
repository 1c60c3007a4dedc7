// The rules of COM for every class of the module.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

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

GUID GuidOf(ITypeInfo* info) {
  TYPEATTR* attributes = nullptr;
  Check(info->GetTypeAttr(&attributes));
  const GUID guid = attributes->guid;
  info->ReleaseTypeAttr(attributes);
  return guid;
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

template <class Body>
void ForEachClass(Body body) {
  const std::vector<Class> classes = ClassesOfTheModule();
  EXPECT_EQ(classes.size(), 14U);
  for (const Class& known : classes) {
    SCOPED_TRACE(known.name);
    body(known, Create<IUnknown>(known.clsid));
  }
}

TEST(EveryClass, HasItsInterfacesFromEachOfThemUnderOneIdentityAndNoOthers) {
  std::vector<IID> all = {IID_IMarshal,           IID_NULL,
                          IID_IClassFactory,      IID_IConnectionPointContainer,
                          IID_IProvideClassInfo2, IID_ISupportErrorInfo};
  for (const Class& known : ClassesOfTheModule()) {
    for (const Interface& each : known.interfaces) all.push_back(each.iid);
  }
  ForEachClass([&](const Class& known, const ComPtr<IUnknown>& object) {
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

TEST(EveryClass, DescribesItselfAndEachDualInterface) {
  ForEachClass([](const Class& known, const ComPtr<IUnknown>& object) {
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
      EXPECT_EQ(GuidOf(info.Get()), expected);
      ITypeInfo* out = info.Get();
      EXPECT_EQ(dispatch->GetTypeInfo(1, 0, &out), DISP_E_BADINDEX);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(dispatch->GetTypeInfo(0, 0, nullptr), E_POINTER);
    }
    const auto self = As<IProvideClassInfo>(object);
    ASSERT_EQ(self->GetClassInfo(info.ReleaseAndGetAddressOf()), S_OK);
    EXPECT_EQ(GuidOf(info.Get()), known.clsid);
    EXPECT_EQ(self->GetClassInfo(nullptr), E_POINTER);
    if (known.events.empty()) return;
    GUID source = {};
    EXPECT_EQ(As<IProvideClassInfo2>(object)->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source),
              S_OK);
    EXPECT_EQ(source, known.events.front().iid);
  });
}

TEST(EveryClass, LeavesCountingAndQueriesToAnOuterObject) {
  ForEachClass([](const Class& known, const ComPtr<IUnknown>&) {
    const auto factory = FactoryOf(known.clsid);
    Outer outer;
    ASSERT_EQ(factory->CreateInstance(&outer, IID_IUnknown,
                                      reinterpret_cast<void**>(outer.inner.GetAddressOf())),
              S_OK);
    EXPECT_EQ(outer.references, 1U) << "creating must not hold the outer object";
    EXPECT_EQ(ReferenceCount(outer.inner.Get()), 1U);
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

    const auto refuses = [&](IUnknown* controlling, REFIID iid, HRESULT expected) {
      void* out = &out;
      EXPECT_EQ(factory->CreateInstance(controlling, iid, &out), expected);
      EXPECT_EQ(out, nullptr);
    };
    refuses(&outer, IID_IDispatch, CLASS_E_NOAGGREGATION);
    refuses(&outer, known.interfaces.front().iid, CLASS_E_NOAGGREGATION);
    refuses(nullptr, Outer::kIid, E_NOINTERFACE);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(outer.references, 1U);
  });
}

// All classes share their base.
TEST(OneClass, CountsReferencesOfManyThreads) {
  constexpr int kTimes = 200'000;
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

// The factories that are registered for this process keep the module loaded, too.
class Module : public ::testing::Test {
 protected:
  Module() { ModuleUnderTest::Revoke(); }
  ~Module() override { ModuleUnderTest::Load(); }
};

TEST_F(Module, StaysLoadedForFactoriesObjectsAndServerLocks) {
  EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
  for (const Class& known : ClassesOfTheModule()) {
    SCOPED_TRACE(known.name);
    ComPtr<IClassFactory> factory = FactoryOf(known.clsid);
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_FALSE) << "a factory";
    // An object may create others by class identifier.
    ModuleUnderTest::Load();
    auto object = Create<IUnknown>(known.clsid);
    ModuleUnderTest::Revoke();
    factory.Reset();
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_FALSE) << "an object";
    object.Reset();
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
  }
  const auto factory_locks = [](BOOL lock) {
    return FactoryOf(CLSID_CNullReader)->LockServer(lock);
  };
  for (int times = 0; times < 2; ++times) {
    EXPECT_EQ(factory_locks(TRUE), S_OK);
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_FALSE) << "a lock";
    EXPECT_EQ(factory_locks(FALSE), S_OK);
    // One unlock too many must not cancel a later lock.
    EXPECT_EQ(factory_locks(FALSE), E_UNEXPECTED);
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
  }
}

TEST_F(Module, ReportsWhyItHasNoClassObject) {
  const auto get = [](REFCLSID clsid, REFIID iid) {
    void* out = &out;
    const HRESULT hr = ModuleUnderTest::GetClassObject(clsid, iid, &out);
    EXPECT_EQ(out, nullptr);
    return hr;
  };
  EXPECT_EQ(get(CLSID_CNullReader, IID_IDispatch), E_NOINTERFACE);
  EXPECT_EQ(get(Outer::kIid, IID_IClassFactory), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(ModuleUnderTest::GetClassObject(CLSID_CNullReader, IID_IClassFactory, nullptr),
            E_POINTER);
  const auto factory = FactoryOf(CLSID_CNullReader);
  EXPECT_TRUE(Query(factory.Get(), IID_IUnknown));
  EXPECT_FALSE(Query(factory.Get(), IID_IDispatch));
  EXPECT_EQ(factory->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
}

}  // namespace
}  // namespace marlinda::testing
