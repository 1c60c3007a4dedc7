// The rules of COM for every class of the module.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using ::testing::UnorderedElementsAre;

// An identity as a client compares it: never called, only looked at.
IUnknown* IdentityOf(IUnknown* object) {
  IUnknown* identity = nullptr;
  EXPECT_EQ(object->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)), S_OK);
  if (identity != nullptr) identity->Release();
  return identity;
}

ComPtr<IUnknown> Query(IUnknown* object, REFIID iid) {
  ComPtr<IUnknown> result;
  object->QueryInterface(iid, reinterpret_cast<void**>(result.GetAddressOf()));
  return result;
}

ComPtr<IClassFactory> FactoryOf(REFCLSID clsid) {
  ComPtr<IClassFactory> factory;
  Check(ModuleUnderTest::GetClassObject(clsid, IID_IClassFactory,
                                        reinterpret_cast<void**>(factory.GetAddressOf())));
  return factory;
}

// Every interface of the class.
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
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, kIid)) {
      *out = static_cast<IUnknown*>(this);
      AddRef();
      return S_OK;
    }
    return inner ? inner->QueryInterface(iid, out) : E_NOINTERFACE;
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
    body(known);
  }
}

TEST(EveryClass, HasItsInterfacesFromEachOfThemUnderOneIdentityAndNoOthers) {
  std::vector<IID> all = {IID_IMarshal,           IID_NULL,
                          IID_IClassFactory,      IID_IConnectionPointContainer,
                          IID_IProvideClassInfo2, IID_ISupportErrorInfo};
  ForEachClass([&](const Class& known) {
    for (const Interface& each : known.interfaces) all.push_back(each.iid);
  });
  ForEachClass([&](const Class& known) {
    const auto object = Create<IUnknown>(known.clsid);
    const std::vector<IID> iids = InterfacesOf(known);
    for (const IID& from : iids) {
      const ComPtr<IUnknown> face = Query(object.Get(), from);
      ASSERT_TRUE(face);
      EXPECT_EQ(IdentityOf(face.Get()), object.Get());
      for (const IID& to : iids) EXPECT_TRUE(Query(face.Get(), to));
    }
    const ULONG before = ReferenceCount(object.Get());
    for (const IID& iid : all) {
      if (std::ranges::find(iids, iid) != iids.end()) continue;
      void* out = &out;
      EXPECT_EQ(object->QueryInterface(iid, &out), E_NOINTERFACE);
      EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(object->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(ReferenceCount(object.Get()), before);
  });
}

GUID GuidOf(ITypeInfo* info) {
  TYPEATTR* attributes = nullptr;
  Check(info->GetTypeAttr(&attributes));
  const GUID guid = attributes->guid;
  info->ReleaseTypeAttr(attributes);
  return guid;
}

TEST(EveryClass, DescribesItselfAndEachDualInterface) {
  ForEachClass([](const Class& known) {
    const auto object = Create<IUnknown>(known.clsid);
    std::vector<std::pair<IID, IID>> described = {{IID_IDispatch, known.interfaces.front().iid}};
    for (const Interface& each : known.interfaces) {
      if (each.iid != IID_IPeakReader) described.emplace_back(each.iid, each.iid);
    }
    for (const auto& [asked, expected] : described) {
      const ComPtr<IUnknown> face = Query(object.Get(), asked);
      auto* const dispatch = static_cast<IDispatch*>(face.Get());
      UINT count = 0;
      EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
      EXPECT_EQ(count, 1U);
      ComPtr<ITypeInfo> info;
      ASSERT_EQ(dispatch->GetTypeInfo(0, 0, info.GetAddressOf()), S_OK);
      EXPECT_EQ(GuidOf(info.Get()), expected);
      ITypeInfo* out = info.Get();
      EXPECT_EQ(dispatch->GetTypeInfo(1, 0, &out), DISP_E_BADINDEX);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(dispatch->GetTypeInfo(0, 0, nullptr), E_POINTER);
      EXPECT_EQ(dispatch->GetTypeInfoCount(nullptr), E_POINTER);
    }
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(As<IProvideClassInfo>(object)->GetClassInfo(info.GetAddressOf()), S_OK);
    EXPECT_EQ(GuidOf(info.Get()), known.clsid);
    EXPECT_EQ(As<IProvideClassInfo>(object)->GetClassInfo(nullptr), E_POINTER);
    if (known.events.empty()) return;
    GUID source = {};
    EXPECT_EQ(As<IProvideClassInfo2>(object)->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source),
              S_OK);
    EXPECT_EQ(source, known.events.front().iid);
  });
}

TEST(EveryClass, LeavesCountingAndQueriesToAnOuterObject) {
  ForEachClass([](const Class& known) {
    const auto factory = FactoryOf(known.clsid);
    Outer outer;
    ASSERT_EQ(factory->CreateInstance(&outer, IID_IUnknown,
                                      reinterpret_cast<void**>(outer.inner.GetAddressOf())),
              S_OK);
    EXPECT_EQ(outer.references, 1U) << "creating must not hold the outer object";
    EXPECT_EQ(ReferenceCount(outer.inner.Get()), 1U);
    for (const IID& iid : InterfacesOf(known)) {
      if (iid == IID_IUnknown) continue;
      ComPtr<IUnknown> face = Query(outer.inner.Get(), iid);
      ASSERT_TRUE(face);
      EXPECT_EQ(outer.references, 2U) << "an interface counts on the outer object";
      EXPECT_EQ(IdentityOf(face.Get()), &outer);
      EXPECT_TRUE(Query(face.Get(), Outer::kIid)) << "the outer object's own interfaces";
      face.Reset();
      EXPECT_EQ(outer.references, 1U);
    }
    EXPECT_EQ(IdentityOf(outer.inner.Get()), outer.inner.Get());
    EXPECT_FALSE(Query(outer.inner.Get(), Outer::kIid)) << "the inner unknown delegates";
    EXPECT_EQ(outer.inner.Reset(), 0U);
    EXPECT_EQ(outer.references, 1U);

    for (const IID& iid : {IID_IDispatch, known.interfaces.front().iid}) {
      void* out = &out;
      EXPECT_EQ(factory->CreateInstance(&outer, iid, &out), CLASS_E_NOAGGREGATION);
      EXPECT_EQ(out, nullptr);
    }
    void* out = &out;
    EXPECT_EQ(factory->CreateInstance(nullptr, Outer::kIid, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(outer.references, 1U);
  });
}

TEST(EveryClass, CountsReferencesOfManyThreads) {
  constexpr int kTimes = 50'000;
  ForEachClass([](const Class& known) {
    const auto object = Create<IUnknown>(known.clsid);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([face = object.Get()] {
        for (int i = 0; i < kTimes; ++i) face->AddRef();
        for (int i = 0; i < kTimes; ++i) face->Release();
      });
    }
    threads.clear();
    EXPECT_EQ(ReferenceCount(object.Get()), 1U);
  });
}

TEST(EveryClass, LeavesNoHeapBlockAndNoHandleBehind) {
  constexpr unsigned kTimes = 200;
  ForEachClass([](const Class& known) {
    const auto create = [&](unsigned times) {
      for (unsigned i = 0; i < times; ++i) {
        const auto object = Create<IUnknown>(known.clsid);
        for (const IID& iid : InterfacesOf(known)) Query(object.Get(), iid);
      }
    };
    create(10);
    const std::size_t blocks = CountHeapBlocks();
    const unsigned handles = CountHandles();
    create(kTimes);
    EXPECT_LT(CountHeapBlocks(), blocks + kTimes / 2);
    EXPECT_LT(CountHandles(), handles + kTimes / 2);
  });
}

TEST(EveryClass, KeepsTheModuleLoaded) {
  ForEachClass([](const Class& known) {
    // The factories that are registered for this process count too.
    ModuleUnderTest::Revoke();
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
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
    ModuleUnderTest::Load();
  });
}

TEST(ClassFactory, HasItsInterfacesAndCountsServerLocks) {
  ModuleUnderTest::Revoke();
  ComPtr<IClassFactory> factory = FactoryOf(CLSID_CNullReader);
  EXPECT_TRUE(Query(factory.Get(), IID_IUnknown));
  void* out = &out;
  EXPECT_EQ(factory->QueryInterface(IID_IDispatch, &out), E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(factory->QueryInterface(IID_IUnknown, nullptr), E_POINTER);

  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  factory.Reset();
  EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_FALSE);
  factory = FactoryOf(CLSID_CNullReader);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  // One unlock too many must not cancel a later lock.
  EXPECT_EQ(factory->LockServer(FALSE), E_UNEXPECTED);
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  factory.Reset();
  EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
  ModuleUnderTest::Load();
}

TEST(Module, ReportsWhyItHasNoClassObject) {
  void* out = &out;
  EXPECT_EQ(ModuleUnderTest::GetClassObject(CLSID_CNullReader, IID_IClassFactory, nullptr),
            E_POINTER);
  EXPECT_EQ(ModuleUnderTest::GetClassObject(CLSID_CNullReader, IID_IDispatch, &out), E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  out = &out;
  EXPECT_EQ(ModuleUnderTest::GetClassObject(Outer::kIid, IID_IClassFactory, &out),
            CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(ModuleUnderTest::GetClassObject(CLSID_CNullReader, IID_IUnknown, &out), S_OK);
  static_cast<IUnknown*>(out)->Release();
}

TEST(Module, ExportsExactlyFiveFunctions) {
  const auto* base = reinterpret_cast<const BYTE*>(ModuleUnderTest::Handle());
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const auto& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  const auto* exports =
      reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
  EXPECT_EQ(exports->NumberOfFunctions, 5U);
  const auto* names = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
  std::vector<std::string> found;
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
    found.emplace_back(reinterpret_cast<const char*>(base + names[i]));
  }
  EXPECT_THAT(found, UnorderedElementsAre("DllMain", "DllGetClassObject", "DllCanUnloadNow",
                                          "DllRegisterServer", "DllUnregisterServer"));
}

}  // namespace
}  // namespace marlinda::testing
