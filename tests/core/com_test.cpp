// Tests the identity and the interfaces of every class, the module's lifetime, IDispatch, sample
// arrays and worker threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "core/apartment.h"
#include "core/sample_array.h"
#include "core/worker_thread.h"
#include "tests/support/com_client.h"
#include "tests/support/contract_model.h"
#include "tests/support/process_counts.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {
namespace {

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

TEST(EveryClass, HasOneIdentityAndExactlyItsInterfaces) {
  const std::vector<Class> classes = ClassesOfTheModule();
  std::vector<IID> all = {IID_IMarshal, IID_IClassFactory, IID_IConnectionPointContainer,
                          IID_IProvideClassInfo2, IID_ISupportErrorInfo};
  EXPECT_EQ(classes.size(), 14U);
  for (const Class& known : classes) {
    all.insert(all.end(), known.interfaces.begin(), known.interfaces.end());
  }
  for (const Class& known : classes) {
    SCOPED_TRACE(known.name);
    const auto object = Create<IUnknown>(known.clsid);
    std::vector<IID> iids = known.interfaces;
    iids.insert(iids.end(), {IID_IDispatch, IID_IProvideClassInfo});
    if (!known.events.empty()) {
      iids.insert(iids.end(), {IID_IConnectionPointContainer, IID_IProvideClassInfo2});
      GUID source = {};
      As<IProvideClassInfo2>(object)->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source);
      EXPECT_EQ(source, known.events.front());
    }
    for (const IID& from : iids) {
      const ComPtr<IUnknown> face = Query(object.Get(), from);
      ASSERT_TRUE(face);
      EXPECT_EQ(Query(face.Get(), IID_IUnknown).Get(), object.Get());
      for (const IID& to : iids) EXPECT_TRUE(Query(face.Get(), to));
    }
    for (const IID& iid : all) {
      if (std::ranges::find(iids, iid) != iids.end()) continue;
      void* out = &out;
      EXPECT_EQ(object->QueryInterface(iid, &out), E_NOINTERFACE);
      EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(ReferenceCount(object.Get()), 1U);
  }
}

TEST(Module, StaysLoadedWhileFactoriesObjectsOrServerLocksExist) {
  const auto can_unload = ModuleUnderTest::CanUnloadNow;
  // The class factories that this process has registered also keep the module loaded.
  ModuleUnderTest::Revoke();
  EXPECT_EQ(can_unload(), S_OK);
  ComPtr<IClassFactory> factory = FactoryOf(CLSID_CEditedAudio);
  void* out = &out;
  EXPECT_EQ(can_unload(), S_FALSE) << "a factory";
  // An outer object may request only the inner object's IUnknown.
  EXPECT_EQ(factory->CreateInstance(factory.Get(), IID_IDispatch, &out), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(factory->CreateInstance(nullptr, IID_IStream, &out), E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  // Registers the classes, because objects create other objects by class identifier.
  ModuleUnderTest::Load();
  auto object = Create<IUnknown>(CLSID_CEditedAudio);
  ModuleUnderTest::Revoke();
  factory.Reset();
  EXPECT_EQ(can_unload(), S_FALSE) << "an object";
  object.Reset();
  EXPECT_EQ(can_unload(), S_OK);
  const auto lock = [](BOOL locks) { return FactoryOf(CLSID_CNullReader)->LockServer(locks); };
  for (int times = 0; times < 2; ++times) {
    EXPECT_EQ(lock(TRUE), S_OK);
    EXPECT_EQ(can_unload(), S_FALSE) << "a lock";
    EXPECT_EQ(lock(FALSE), S_OK);
    // An unlock without a lock must not cancel a later lock.
    EXPECT_EQ(lock(FALSE), E_UNEXPECTED);
    EXPECT_EQ(can_unload(), S_OK);
  }
  ModuleUnderTest::Load();
}

// Returns an argument as a client passes it. The variant owns nothing.
template <class T>
VARIANT Value(int type, T value) {
  VARIANT variant;
  VariantInit(&variant);
  V_VT(&variant) = static_cast<VARTYPE>(type);
  std::memcpy(&V_I8(&variant), &value, sizeof value);
  return variant;
}
// Returns a reference as an argument. The reference is null if `value` is null.
template <class T>
VARIANT Reference(int type, T* value) {
  return Value(VT_BYREF | type, value);
}
VARIANT Long(LONG value) { return Value(VT_I4, value); }
VARIANT Array(SAFEARRAY* array) { return Value(VT_ARRAY | VT_R4, array); }
VARIANT Variable(VARIANT& variable) { return Reference(VT_VARIANT, &variable); }
const VARIANT kEmpty = Value(VT_EMPTY, 0);

constexpr UINT kUntouched = 77;

// Makes a call and owns its results.
struct Outcome {
  // `arguments` are in declaration order. `named` holds the parameter identifiers of the last
  // arguments and may be empty.
  Outcome(IDispatch* object, DISPID member, std::vector<VARIANT> arguments,
          std::vector<DISPID> named = {}, WORD flags = DISPATCH_METHOD) {
    std::ranges::reverse(arguments);
    std::ranges::reverse(named);
    DISPPARAMS params = {arguments.data(), named.data(), static_cast<UINT>(arguments.size()),
                         static_cast<UINT>(named.size())};
    V_VT(&result) = 0x7ead;  // Invoke must overwrite this and not clear it
    hr = object->Invoke(member, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, &result, &exception,
                        &argument_error);
  }
  ~Outcome() {
    VariantClear(&result);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
  }
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;

  HRESULT hr = E_UNEXPECTED;
  VARIANT result;
  EXCEPINFO exception = {};
  UINT argument_error = kUntouched;  // an index into the reversed arguments
};

// Each DISPID is the method's position in its interface.
constexpr DISPID kCreate = 1;                                          // INullReader
constexpr DISPID kReadAudio = 1, kGetFormat = 2, kGetSampleCount = 3;  // IAudioReader
constexpr DISPID kAddLabel = 1, kGetLabel = 3;                         // ILabelSupport
constexpr DISPID kReadWaveplot = 1, kClear = 6, kInsertSegment = 7,
                 kGetFirstSegment = 9;   // IEditedAudio
constexpr DISPID kCreateLastReader = 5;  // IAudioPool

class Dispatch : public ::testing::Test {
 protected:
  Dispatch() { EXPECT_EQ(silence_->Create(1LL << 40, 48000, 2), S_OK); }

  const ComPtr<INullReader> silence_ = Create<INullReader>(CLSID_CNullReader);
  const ComPtr<IAudioReader> reader_ = As<IAudioReader>(silence_);
  const ComPtr<IEditedAudio> document_ = Create<IEditedAudio>(CLSID_CEditedAudio);
};

TEST_F(Dispatch, CoercesPositionalAndNamedArgumentsAndReferences) {
  Bstr number(L"44100");
  Bstr word(L"forty");
  __int64 count = -(1LL << 40);
  VARIANT inner = Reference(VT_I8, &count);
  VARIANT channels = Value(VT_I2, SHORT{2});
  struct Case {
    std::vector<VARIANT> arguments;
    std::vector<__int64> format;  // frames, rate and channels of the reader; empty after a failure
    HRESULT hr = S_OK;
    UINT index = kUntouched;  // counted from the last argument
    std::vector<DISPID> named = {};
  };
  const Case cases[] = {
      {{Value(VT_R8, 0x1p40), Value(VT_BSTR, BSTR{number}), kEmpty}, {1LL << 40, 44100, 0}},
      {{Variable(inner), Long(8000), Variable(channels)}, {-(1LL << 40), 8000, 2}},
      {{Long(1), Long(6), Long(2)}, {1, 2, 6}, S_OK, kUntouched, {2, 1}},
      {{Long(1), Long(2), Long(3)}, {}, DISP_E_PARAMNOTFOUND, 0, {1, 9}},
      {{Long(1), Long(2), Long(3)}, {}, DISP_E_PARAMNOTOPTIONAL, kUntouched, {1, 1}},
      {{Value(VT_BSTR, BSTR{word}), Long(2), Long(3)}, {}, DISP_E_TYPEMISMATCH, 2},
      {{Reference<VARIANT>(VT_VARIANT, nullptr), Long(2), Long(3)}, {}, DISP_E_TYPEMISMATCH, 2},
      {{Long(1), Long(2), Long(40000)}, {}, DISP_E_OVERFLOW, 0},
      {{Long(1), Value(VT_ERROR, DISP_E_PARAMNOTFOUND), Long(3)}, {}, DISP_E_PARAMNOTOPTIONAL, 1},
      {{Long(1), Long(2)}, {}, DISP_E_BADPARAMCOUNT},
  };
  for (const auto& [arguments, format, hr, index, named] : cases) {
    SCOPED_TRACE(&arguments - &cases[0].arguments);
    Outcome outcome(silence_.Get(), kCreate, arguments, named);
    EXPECT_EQ(outcome.hr, hr);
    EXPECT_EQ(outcome.argument_error, index);
    if (FAILED(hr)) continue;
    __int64 frames = 0;
    LONG rate = 0;
    SHORT width = 0;
    EXPECT_EQ(reader_->GetSampleCount(&frames), S_OK);
    EXPECT_EQ(reader_->GetFormat(&rate, &width), S_OK);
    EXPECT_EQ((std::vector<__int64>{frames, rate, width}), format);
  }
}

TEST_F(Dispatch, PassesFloatArraysWithoutCopyingAndRefusesOtherElementTypes) {
  Floats block(8, 0.5F, 5);
  SAFEARRAY* array = block;
  VARIANT variable = Array(array);
  VARIANT reference = Reference(VT_ARRAY | VT_R4, &array);
  VARIANT outer = Variable(variable);
  ASSERT_EQ(document_->SetFormat(44100, 1, 16), S_OK);
  ASSERT_EQ(document_->AppendSegment(nullptr, 0, 8), S_OK);
  for (const VARIANT& argument : {Array(array), Variable(reference), Variable(outer)}) {
    EXPECT_EQ(Outcome(reader_.Get(), kReadAudio, {Long(0), argument}).hr, S_OK);
    EXPECT_THAT(block.ToVector(), ::testing::Each(0.0F));
    // The type library declares an array of shorts here, but the method requires floats.
    std::ranges::fill(block.values(), 0.5F);
    EXPECT_EQ(Outcome(document_.Get(), kReadWaveplot, {Long(0), Long(8), argument}).hr, S_OK);
    EXPECT_THAT(block.ToVector(), ::testing::Each(0.0F));
  }
  EXPECT_EQ(array->cLocks, 0);

  const ForeignArray shorts(VT_I2);
  VARIANT foreign = Value(VT_ARRAY | VT_I2, static_cast<SAFEARRAY*>(shorts));
  for (const VARIANT& argument : {Variable(foreign), Long(3)}) {
    EXPECT_EQ(Outcome(reader_.Get(), kReadAudio, {Long(0), argument}).hr, DISP_E_TYPEMISMATCH);
  }
}

TEST_F(Dispatch, WritesOutParametersToReferencesAndVariables) {
  LONG rate = 0;
  double wrong = 0;
  SHORT channels = 0;
  const VARIANT to_channels = Reference(VT_I2, &channels);
  EXPECT_EQ(Outcome(reader_.Get(), kGetFormat, {Reference(VT_I4, &rate), to_channels}).hr, S_OK);
  EXPECT_EQ(rate, 48000);
  EXPECT_EQ(channels, 2);
  // If a client passes an out parameter by value, the client gets no result.
  EXPECT_EQ(Outcome(reader_.Get(), kGetFormat, {Long(0), kEmpty}).hr, S_OK);
  Outcome mismatch(reader_.Get(), kGetFormat, {Reference(VT_R8, &wrong), to_channels});
  EXPECT_EQ(mismatch.hr, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(mismatch.argument_error, 1U);

  const auto labels = As<ILabelSupport>(document_);
  // Names end at the first NUL.
  const OwnedBstr name(SysAllocStringLen(L"Schnitt \x00e4\0x", 11));
  VARIANT position = kEmpty;
  VARIANT variable = Value(VT_BSTR, SysAllocString(L"old"));
  const auto get_label = [&](LONG index) {
    return Outcome(labels.Get(), kGetLabel, {Long(index), Variable(position), Variable(variable)})
        .hr;
  };
  EXPECT_EQ(Outcome(labels.Get(), kAddLabel, {Long(7), Value(VT_BSTR, name.get())}).hr, S_OK);
  EXPECT_EQ(get_label(0), S_OK);
  EXPECT_EQ(V_VT(&position), VT_I8);
  EXPECT_EQ(V_I8(&position), 7);
  EXPECT_EQ(std::wstring(V_BSTR(&variable), SysStringLen(V_BSTR(&variable))), L"Schnitt \x00e4");
  VariantClear(&variable);
  variable = Long(5);
  EXPECT_EQ(get_label(1), DISP_E_EXCEPTION);
  EXPECT_EQ(V_VT(&variable), VT_I4) << "a failure keeps the variable";
}

TEST_F(Dispatch, ReturnsResultsInTheirDeclaredTypesAndErrorsInExcepInfo) {
  Outcome count(reader_.Get(), kGetSampleCount, {});
  EXPECT_EQ(V_VT(&count.result), VT_I8);
  EXPECT_EQ(V_I8(&count.result), 1LL << 40);
  EXPECT_EQ(Outcome(document_.Get(), kClear, {}).result.vt, VT_EMPTY);
  // Invoke returns a null object as a null VT_DISPATCH or VT_UNKNOWN, so that scripts can test it.
  Outcome none(Create<IAudioPool>(CLSID_CAudioPool).Get(), kCreateLastReader, {});
  EXPECT_TRUE(V_VT(&none.result) == VT_DISPATCH && V_DISPATCH(&none.result) == nullptr);
  Outcome failed(As<IAudioReader>(Create<IUnknown>(CLSID_CAudioPoolReader)).Get(), kReadAudio,
                 {Long(0), Array(Floats(2))});
  EXPECT_EQ(failed.hr, DISP_E_EXCEPTION);
  EXPECT_EQ(failed.exception.scode, HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
  EXPECT_STREQ(failed.exception.bstrSource, L"Tessaly");
  EXPECT_NE(SysStringLen(failed.exception.bstrDescription), 0U);
}

TEST_F(Dispatch, PassesTheDeclaredInterfaceAndAddsAReferenceToBorrowedResults) {
  IDispatch* direct = document_.Get();
  VARIANT variable = Long(1);
  __int64 begin = 5;
  __int64 end = 6;
  const auto first_segment = [&](const VARIANT& source) {
    return std::make_unique<Outcome>(
        document_.Get(), kGetFirstSegment,
        std::vector{source, Reference(VT_I8, &begin), Reference(VT_I8, &end)});
  };
  const auto insert = [this](int type, IUnknown* object) {
    return Outcome(document_.Get(), kInsertSegment,
                   {Long(0), Value(type, object), Long(2), Long(3)})
        .hr;
  };
  EXPECT_EQ(first_segment(Reference<IDispatch*>(VT_DISPATCH, nullptr))->exception.scode, E_POINTER);
  EXPECT_EQ(V_I4(&first_segment(Reference(VT_DISPATCH, &direct))->result), 0);
  EXPECT_EQ(direct, document_.Get()) << "nothing is lent";
  const ULONG before = ReferenceCount(silence_.Get());
  EXPECT_EQ(insert(VT_DISPATCH, nullptr), S_OK);
  EXPECT_EQ(insert(VT_UNKNOWN, silence_.Get()), S_OK);
  // kEmpty is a value, not a reference, so it receives no object.
  for (const VARIANT& to : {Reference(VT_DISPATCH, &direct), Variable(variable), kEmpty}) {
    EXPECT_EQ(V_I4(&first_segment(to)->result), 1);
  }
  EXPECT_EQ(begin, 2);
  EXPECT_EQ(direct, reader_.Get());
  EXPECT_EQ(V_DISPATCH(&variable), reader_.Get());
  EXPECT_EQ(ReferenceCount(silence_.Get()), before + 3);
  VariantClear(&variable);
  direct->Release();
  EXPECT_EQ(document_->Clear(), S_OK);
  EXPECT_EQ(ReferenceCount(silence_.Get()), before);
  EXPECT_EQ(insert(VT_DISPATCH, Create<IAudioPool>(CLSID_CAudioPool).Get()), DISP_E_TYPEMISMATCH);
}

TEST_F(Dispatch, RefusesUnknownMembersPropertiesAndInconsistentArguments) {
  const std::tuple<DISPID, WORD, HRESULT> calls[] = {
      {0, DISPATCH_METHOD, DISP_E_MEMBERNOTFOUND},
      {6, DISPATCH_METHOD, DISP_E_MEMBERNOTFOUND},
      {kGetSampleCount, DISPATCH_PROPERTYGET, DISP_E_MEMBERNOTFOUND},
      {kGetSampleCount, DISPATCH_METHOD | DISPATCH_PROPERTYGET, S_OK}};
  for (const auto& [member, flags, expected] : calls) {
    EXPECT_EQ(Outcome(reader_.Get(), member, {}, {}, flags).hr, expected) << member;
  }
  VARIANT arguments[] = {Long(16), Long(2), Long(1)};
  DISPID names[] = {0, 1, 2, 3};
  // Only the first element is valid. The test passes no pointers for the results.
  DISPPARAMS params[] = {
      {arguments, nullptr, 3, 0}, {nullptr, nullptr, 3, 0}, {arguments, names, 3, 4}};
  for (DISPPARAMS& each : params) {
    EXPECT_EQ(
        silence_->Invoke(kCreate, IID_NULL, 0, DISPATCH_METHOD, &each, nullptr, nullptr, nullptr),
        &each == params ? S_OK : E_INVALIDARG);
  }
}

// Calls the methods as scripts do.
TEST_F(Dispatch, LeaksNoMemory) {
  constexpr int kTimes = 100;
  const auto labels = As<ILabelSupport>(document_);
  Bstr word(L"forty");
  Floats block(8);
  const auto call = [&](int times) {
    for (int i = 0; i < times; ++i) {
      VARIANT position = kEmpty;
      VARIANT name = kEmpty;
      Outcome(labels.Get(), kAddLabel, {Long(7), Value(VT_BSTR, BSTR{word})});
      Outcome(labels.Get(), kGetLabel, {Long(0), Variable(position), Variable(name)});
      EXPECT_EQ(V_VT(&name), VT_BSTR);
      VariantClear(&name);
      EXPECT_EQ(Outcome(labels.Get(), kGetLabel, {Long(9), kEmpty, kEmpty}).hr, DISP_E_EXCEPTION);
      Outcome(silence_.Get(), kCreate, {Value(VT_BSTR, BSTR{word}), Long(2), Long(3)});
      Outcome(silence_.Get(), kCreate, {Long(8), Long(2), Long(3)});
      Outcome(reader_.Get(), kReadAudio, {Long(0), Array(block)});
      Outcome(document_.Get(), kInsertSegment,
              {Long(0), Value(VT_UNKNOWN, silence_.Get()), Long(2), Long(3)});
      Outcome(document_.Get(), kClear, {});
    }
  };
  call(kTimes);
  const std::size_t blocks = CountHeapBlocks();
  call(kTimes);
  EXPECT_LT(CountHeapBlocks(), blocks + kTimes / 2);
}

TEST(SampleArrayView, AcceptsAFloatArrayWithoutAVartypeAndRefusesASecondLock) {
  float samples[3] = {1, 2, 3};
  SAFEARRAY array = {1, FADF_AUTO | FADF_FIXEDSIZE, sizeof(float), 0, samples, {{3, 5}}};
  {
    SampleArrayView view;
    ASSERT_EQ(view.Lock(&array), S_OK);
    EXPECT_TRUE(std::ranges::equal(view.samples(), samples));
    EXPECT_EQ(view.Lock(&array), E_UNEXPECTED);
  }
  EXPECT_EQ(array.cLocks, 0U);
  array.cbElements = 8;
  EXPECT_EQ(SampleArrayView().Lock(&array), E_INVALIDARG);
}

class Named : public TestObject<IPersist> {
 public:
  STDMETHODIMP GetClassID(CLSID*) override { return thread = GetCurrentThreadId(), S_OK; }
  DWORD thread = 0;
};

// The test thread runs in a single-threaded apartment.
TEST(WorkerThread, RunsOneBodyAtATimeAndTheWaitingThreadServesItsCalls) {
  const auto object = MakeObject<Named>();
  IStream* stream = nullptr;
  ASSERT_EQ(CoMarshalInterThreadInterfaceInStream(IID_IPersist, object.Get(), &stream), S_OK);
  WorkerThread worker;
  ASSERT_EQ(worker.Start([] { throw std::bad_alloc(); }), S_OK);
  worker.PollUntilEnded(1);
  ASSERT_EQ(worker.Start([stream] {
    const Apartment apartment(COINIT_MULTITHREADED);
    ComPtr<IPersist> proxy;
    CoGetInterfaceAndReleaseStream(stream, IID_IPersist,
                                   reinterpret_cast<void**>(proxy.GetAddressOf()));
    CLSID clsid;
    if (proxy) proxy->GetClassID(&clsid);
  }),
            S_OK);
  EXPECT_EQ(worker.Start([] {}), E_FAIL) << "the body waits for this thread";
  worker.AwaitServingCalls(INFINITE);
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_EQ(object->thread, GetCurrentThreadId());
}

}  // namespace
}  // namespace marlinda::testing
