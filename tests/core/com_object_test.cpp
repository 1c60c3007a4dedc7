// The rules of COM that every class of the module must keep, whatever else it does. Driven by the
// expected class table: a class that this version does not offer yet must say so, and is tested as
// soon as it appears.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <thread>
#include <vector>

#include "tests/core/expected_contracts.h"
#include "tests/support/com_client.h"

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
  ModuleUnderTest::GetClassObject(clsid, IID_IClassFactory,
                                  reinterpret_cast<void**>(factory.GetAddressOf()));
  return factory;
}

// Everything a class answers, by name.
std::vector<std::string> OfferedBy(const ExpectedClass& expected) {
  std::vector<std::string> names = {"IUnknown", "IDispatch", "IProvideClassInfo"};
  names.insert(names.end(), expected.interfaces.begin(), expected.interfaces.end());
  names.insert(names.end(), expected.platform.begin(), expected.platform.end());
  return names;
}

// An object that aggregates another: it answers two interfaces of its own and lends the rest.
class Outer final : public IUnknown {
 public:
  static constexpr IID kIid = {0x9e3e2e0d, 0x1c2b, 0x4a5d, {1, 2, 3, 4, 5, 6, 7, 8}};

  STDMETHODIMP QueryInterface(REFIID iid, void** out) override {
    ++queries;
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
  int queries = 0;
};

// One class that the module offers, with the ways to make an object of it.
struct Offered {
  const ExpectedClass& expected;
  ComPtr<IClassFactory> factory;

  ComPtr<IUnknown> Create() const {
    ComPtr<IUnknown> object;
    Check(factory->CreateInstance(nullptr, IID_IUnknown,
                                  reinterpret_cast<void**>(object.GetAddressOf())));
    return object;
  }
};

template <class Body>
void ForEachOfferedClass(Body body) {
  for (const ExpectedClass& expected : ExpectedClasses()) {
    SCOPED_TRACE(expected.name);
    Offered offered = {expected, FactoryOf(expected.clsid)};
    if (offered.factory) body(offered);
  }
}

TEST(EveryClass, OffersItsInterfacesFromEachOfThemUnderOneIdentity) {
  ForEachOfferedClass([](Offered& offered) {
    ComPtr<IUnknown> object = offered.Create();
    const std::vector<std::string> names = OfferedBy(offered.expected);
    for (const std::string& from : names) {
      ComPtr<IUnknown> face = Query(object.Get(), IidOf(from));
      ASSERT_TRUE(face) << from;
      EXPECT_EQ(IdentityOf(face.Get()), object.Get()) << from;
      for (const std::string& to : names) {
        EXPECT_TRUE(Query(face.Get(), IidOf(to))) << from << " to " << to;
      }
    }
  });
}

TEST(EveryClass, RefusesEveryOtherInterfaceAndANullPointer) {
  ForEachOfferedClass([](Offered& offered) {
    ComPtr<IUnknown> object = offered.Create();
    const std::vector<std::string> names = OfferedBy(offered.expected);
    std::vector<IID> strangers = {IID_IMarshal, IID_NULL, IID_IClassFactory};
    for (const ExpectedInterface& known : ExpectedInterfaces()) {
      if (std::ranges::find(names, known.name) == names.end()) strangers.push_back(known.iid);
    }
    if (offered.expected.platform.empty()) {
      strangers.push_back(IID_IProvideClassInfo2);
      strangers.push_back(IID_IConnectionPointContainer);
    }
    const ULONG before = ReferenceCount(object.Get());
    for (const IID& iid : strangers) {
      void* out = &out;
      EXPECT_EQ(object->QueryInterface(iid, &out), E_NOINTERFACE);
      EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(object->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(ReferenceCount(object.Get()), before);
  });
}

TEST(EveryClass, BindsEachDispatchToItsOwnInterfaceAndIDispatchToTheFirst) {
  ForEachOfferedClass([](Offered& offered) {
    ComPtr<IUnknown> object = offered.Create();
    std::vector<std::string> faces = offered.expected.interfaces;
    faces.push_back("IDispatch");
    for (const std::string& name : faces) {
      SCOPED_TRACE(name);
      const IID expected = IidOf(name == "IDispatch" ? offered.expected.interfaces.front() : name);
      if (IsEqualIID(expected, IID_IPeakReader)) continue;
      ComPtr<IUnknown> face = Query(object.Get(), IidOf(name));
      auto* dispatch = static_cast<IDispatch*>(face.Get());
      UINT count = 0;
      EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
      EXPECT_EQ(count, 1U);
      ComPtr<ITypeInfo> info;
      ASSERT_EQ(dispatch->GetTypeInfo(0, 0, info.GetAddressOf()), S_OK);
      TYPEATTR* attributes = nullptr;
      ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
      EXPECT_EQ(attributes->guid, expected);
      info->ReleaseTypeAttr(attributes);

      ITypeInfo* out = info.Get();
      EXPECT_EQ(dispatch->GetTypeInfo(1, 0, &out), DISP_E_BADINDEX);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(dispatch->GetTypeInfo(0, 0, nullptr), E_POINTER);
      EXPECT_EQ(dispatch->GetTypeInfoCount(nullptr), E_POINTER);
    }
  });
}

TEST(EveryClass, NamesItsClassThroughIProvideClassInfo) {
  ForEachOfferedClass([](Offered& offered) {
    ComPtr<IUnknown> object = offered.Create();
    auto provider = As<IProvideClassInfo>(object);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(provider->GetClassInfo(info.GetAddressOf()), S_OK);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->typekind, TKIND_COCLASS);
    EXPECT_EQ(attributes->guid, offered.expected.clsid);
    info->ReleaseTypeAttr(attributes);
    EXPECT_EQ(provider->GetClassInfo(nullptr), E_POINTER);
    if (!offered.expected.events.empty()) {
      auto provider2 = As<IProvideClassInfo2>(object);
      GUID source = {};
      ASSERT_EQ(provider2->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source), S_OK);
      EXPECT_EQ(source, IidOf(offered.expected.events.front()));
    }
  });
}

TEST(EveryClass, LeavesCountingAndQueriesToAnOuterObject) {
  ForEachOfferedClass([](Offered& offered) {
    Outer outer;
    ASSERT_EQ(offered.factory->CreateInstance(&outer, IID_IUnknown,
                                              reinterpret_cast<void**>(outer.inner.GetAddressOf())),
              S_OK);
    EXPECT_EQ(outer.references, 1U) << "creating must not hold the outer object";
    EXPECT_EQ(ReferenceCount(outer.inner.Get()), 1U);

    for (const std::string& name : OfferedBy(offered.expected)) {
      if (name == "IUnknown") continue;
      SCOPED_TRACE(name);
      const ULONG before = outer.references;
      ComPtr<IUnknown> face = Query(outer.inner.Get(), IidOf(name));
      ASSERT_TRUE(face);
      EXPECT_EQ(outer.references, before + 1) << "an interface counts on the outer object";
      const int queries = outer.queries;
      EXPECT_EQ(IdentityOf(face.Get()), &outer);
      EXPECT_GT(outer.queries, queries);
      EXPECT_TRUE(Query(face.Get(), Outer::kIid)) << "the outer object's own interfaces are seen";
      face.Reset();
      EXPECT_EQ(outer.references, before);
    }

    // The inner unknown does not delegate.
    const int queries = outer.queries;
    EXPECT_EQ(IdentityOf(outer.inner.Get()), outer.inner.Get());
    EXPECT_FALSE(Query(outer.inner.Get(), Outer::kIid));
    EXPECT_EQ(outer.queries, queries);
    EXPECT_EQ(outer.inner.Reset(), 0U);
    EXPECT_EQ(outer.references, 1U);
  });
}

TEST(EveryClass, IsAggregatedByItsIUnknownOnly) {
  ForEachOfferedClass([](Offered& offered) {
    Outer outer;
    for (const IID& iid : {IID_IDispatch, IidOf(offered.expected.interfaces.front())}) {
      void* out = &out;
      EXPECT_EQ(offered.factory->CreateInstance(&outer, iid, &out), CLASS_E_NOAGGREGATION);
      EXPECT_EQ(out, nullptr);
    }
    void* out = &out;
    EXPECT_EQ(offered.factory->CreateInstance(nullptr, Outer::kIid, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(offered.factory->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(outer.references, 1U);
  });
}

TEST(EveryClass, LosesNoCountOfEightThreadsThatHoldAndReleaseAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kTimes = 125'000;
  for (const ExpectedClass& expected : ExpectedClasses()) {
    ComPtr<IUnknown> object;
    const auto factory = FactoryOf(expected.clsid);
    if (!factory) continue;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IUnknown,
                                      reinterpret_cast<void**>(object.GetAddressOf())),
              S_OK);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([face = object.Get()] {
        for (int i = 0; i < kTimes; ++i) face->AddRef();
        for (int i = 0; i < kTimes; ++i) face->Release();
      });
    }
    threads.clear();
    EXPECT_EQ(ReferenceCount(object.Get()), 1U) << expected.name;
  }
}

TEST(EveryClass, HoldsTheModuleWhileAnObjectLives) {
  ForEachOfferedClass([](Offered& offered) {
    // The factories that are registered for this process hold the module, so let them go.
    ModuleUnderTest::Revoke();
    offered.factory.Reset();
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
    offered.factory = FactoryOf(offered.expected.clsid);
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_FALSE) << "a factory counts";
    // An object may create others through COM, so the classes must be known meanwhile.
    ModuleUnderTest::Load();
    ComPtr<IUnknown> object = offered.Create();
    ModuleUnderTest::Revoke();
    offered.factory.Reset();
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_FALSE) << "an object counts";
    object.Reset();
    EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
    ModuleUnderTest::Load();
  });
}

TEST(ClassFactory, AnswersItsInterfacesAndCountsServerLocks) {
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
  // One unlock too many must not let a later lock go unnoticed.
  EXPECT_EQ(factory->LockServer(FALSE), E_UNEXPECTED);
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  factory.Reset();
  EXPECT_EQ(ModuleUnderTest::CanUnloadNow(), S_OK);
  ModuleUnderTest::Load();
}

TEST(Module, SaysWhichClassesItDoesNotOfferYet) {
  for (const ExpectedClass& expected : ExpectedClasses()) {
    SCOPED_TRACE(expected.name);
    if (FactoryOf(expected.clsid)) continue;
    void* out = &out;
    EXPECT_EQ(ModuleUnderTest::GetClassObject(expected.clsid, IID_IClassFactory, &out),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(out, nullptr);
    std::cout << "  not offered yet: " << expected.name << "\n";
  }
}

TEST(Module, TellsApartWhyAClassObjectIsNotGiven) {
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
