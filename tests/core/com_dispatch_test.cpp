// IDispatch through the module's own objects and through a probe that records its arguments.
#include "core/com_dispatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "core/com_object.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

// Arguments as a client makes them. They own nothing.
#define MARLINDA_MAKE_VARIANT(Name, Type, Vt, Accessor) \
  VARIANT Name(Type value) {                            \
    VARIANT variant;                                    \
    VariantInit(&variant);                              \
    V_VT(&variant) = static_cast<VARTYPE>(Vt);          \
    Accessor(&variant) = value;                         \
    return variant;                                     \
  }
MARLINDA_MAKE_VARIANT(Short, SHORT, VT_I2, V_I2)
MARLINDA_MAKE_VARIANT(Long, LONG, VT_I4, V_I4)
MARLINDA_MAKE_VARIANT(Int64, __int64, VT_I8, V_I8)
MARLINDA_MAKE_VARIANT(Double, double, VT_R8, V_R8)
MARLINDA_MAKE_VARIANT(Text, BSTR, VT_BSTR, V_BSTR)
MARLINDA_MAKE_VARIANT(Dispatch, IDispatch*, VT_DISPATCH, V_DISPATCH)
MARLINDA_MAKE_VARIANT(Unknown, IUnknown*, VT_UNKNOWN, V_UNKNOWN)
MARLINDA_MAKE_VARIANT(FloatArray, SAFEARRAY*, VT_ARRAY | VT_R4, V_ARRAY)
MARLINDA_MAKE_VARIANT(ShortArray, SAFEARRAY*, VT_ARRAY | VT_I2, V_ARRAY)
MARLINDA_MAKE_VARIANT(Ref, SHORT*, VT_BYREF | VT_I2, V_I2REF)
MARLINDA_MAKE_VARIANT(Ref, LONG*, VT_BYREF | VT_I4, V_I4REF)
MARLINDA_MAKE_VARIANT(Ref, __int64*, VT_BYREF | VT_I8, V_I8REF)
MARLINDA_MAKE_VARIANT(Ref, float*, VT_BYREF | VT_R4, V_R4REF)
MARLINDA_MAKE_VARIANT(Ref, double*, VT_BYREF | VT_R8, V_R8REF)
MARLINDA_MAKE_VARIANT(Ref, BSTR*, VT_BYREF | VT_BSTR, V_BSTRREF)
MARLINDA_MAKE_VARIANT(Ref, IDispatch**, VT_BYREF | VT_DISPATCH, V_DISPATCHREF)
MARLINDA_MAKE_VARIANT(Ref, SAFEARRAY**, VT_BYREF | VT_ARRAY | VT_R4, V_ARRAYREF)
MARLINDA_MAKE_VARIANT(Ref, VARIANT*, VT_BYREF | VT_VARIANT, V_VARIANTREF)
MARLINDA_MAKE_VARIANT(Error, SCODE, VT_ERROR, V_ERROR)
#undef MARLINDA_MAKE_VARIANT

VARIANT OfType(VARTYPE type) {
  VARIANT variant;
  VariantInit(&variant);
  V_VT(&variant) = type;
  return variant;
}

constexpr UINT kUntouched = 77;

// A call and what came of it. Owns the result and the exception's texts.
struct Outcome {
  // The arguments are in the order of the declaration. The last ones may be named, by the
  // identifiers of their parameters.
  Outcome(IDispatch* object, DISPID member, std::vector<VARIANT> arguments,
          WORD flags = DISPATCH_METHOD, std::vector<DISPID> named = {}) {
    std::ranges::reverse(arguments);
    std::ranges::reverse(named);
    DISPPARAMS params = {arguments.data(), named.data(), static_cast<UINT>(arguments.size()),
                         static_cast<UINT>(named.size())};
    // What an uninitialised result would hold: it must be overwritten, not cleared.
    V_VT(&result) = 0x7ead;
    hr = object->Invoke(member, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, &result, &exception,
                        &argument_error);
  }
  ~Outcome() {
    VariantClear(&result);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
  }
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;

  HRESULT hr = E_UNEXPECTED;
  VARIANT result;
  EXCEPINFO exception = {};
  UINT argument_error = kUntouched;  // as an index into the reversed arguments
};

HRESULT Invoke(IDispatch* object, DISPID member, std::vector<VARIANT> arguments,
               WORD flags = DISPATCH_METHOD, std::vector<DISPID> named = {}) {
  return Outcome(object, member, std::move(arguments), flags, std::move(named)).hr;
}

// The probe: notes what it was given, and answers with what it was told to.
class Probe final : public Object<Probe, IEditedAudio, IMetaDataReader, IFileFilterMgr> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CEditedAudio;

  HRESULT answer = S_OK;
  IAudioReader* lent = nullptr;
  std::vector<double> numbers;
  std::wstring text;
  void* pointer = nullptr;

  // IEditedAudio
  STDMETHODIMP ReadWaveplot(__int64 begin, __int64 end, SAFEARRAY* peaks) override {
    pointer = peaks;
    return Note({double(begin), double(end)});
  }
  STDMETHODIMP SetFormat(LONG rate, SHORT channels, SHORT bits) override {
    return Note({double(rate), double(channels), double(bits)});
  }
  STDMETHODIMP Insert(__int64, IEditedAudio*) override { return answer; }
  STDMETHODIMP Copy(IEditedAudio*, __int64, __int64) override { return answer; }
  STDMETHODIMP CopyAll(IEditedAudio*) override { return answer; }
  STDMETHODIMP Clear() override { return answer; }
  STDMETHODIMP InsertSegment(__int64 at, IAudioReader* source, __int64 begin,
                             __int64 end) override {
    pointer = source;
    return Note({double(at), double(begin), double(end)});
  }
  STDMETHODIMP AppendSegment(IAudioReader*, __int64, __int64) override { return answer; }
  STDMETHODIMP GetFirstSegment(IAudioReader** source, __int64* begin, __int64* end,
                               LONG* valid) override {
    *valid = lent != nullptr ? 1 : 0;
    if (lent == nullptr) return S_OK;
    *source = lent;
    *begin = 10;
    *end = 1LL << 40;
    return answer;
  }
  STDMETHODIMP GetNextSegment(IAudioReader**, __int64*, __int64*, LONG*) override { return answer; }
  STDMETHODIMP Delete(__int64, __int64) override { return answer; }
  STDMETHODIMP InitChange(LONG store_undo, BSTR operation) override {
    text = std::wstring(operation, SysStringLen(operation));
    return Note({double(store_undo)});
  }
  STDMETHODIMP CommitChange() override { return answer; }
  STDMETHODIMP RollbackChange() override { return answer; }
  STDMETHODIMP Play(__int64 begin, __int64 end, ULONG mask, VARIANT_BOOL looped) override {
    return Note({double(begin), double(end), double(mask), double(looped)});
  }
  STDMETHODIMP StopPlay() override { return answer; }
  STDMETHODIMP GetPlayStatus(VARIANT_BOOL* playing, __int64* position) override {
    *playing = VARIANT_TRUE;
    *position = 0;
    return answer;
  }
  STDMETHODIMP GetOutputLevel(SHORT channel, float* level) override {
    if (level == nullptr) return E_POINTER;
    *level = 0.5F;
    return Note({double(channel)});
  }
  STDMETHODIMP SetPlaybackDevice(LONG) override { return answer; }
  STDMETHODIMP GetBitsPerSample(SHORT* bits) override {
    *bits = 24;
    return answer;
  }
  STDMETHODIMP ModifyPlaySection(__int64, __int64) override { return answer; }

  // IMetaDataReader
  STDMETHODIMP GetMetaData(BSTR* title, BSTR* artist, BSTR* album, BSTR* year,
                           BSTR* genre) override {
    for (BSTR* out : {title, artist, album, year, genre}) *out = SysAllocString(L"text");
    return answer;
  }
  STDMETHODIMP SetFilename(BSTR) override { return answer; }

  // IFileFilterMgr
  STDMETHODIMP CreateImportFilter(BSTR, IImportFilter** filter) override {
    *filter = nullptr;
    return answer;
  }
  STDMETHODIMP GetImportFilterString(BSTR*) override { return answer; }

 private:
  HRESULT Note(std::vector<double> values) {
    numbers = std::move(values);
    return answer;
  }
};

// DISPIDs: the places of the methods in their interfaces.
constexpr DISPID kReadAudio = 1, kGetFormat = 2, kGetSampleCount = 3;  // IAudioReader
constexpr DISPID kReadWaveplot = 1, kSetFormat = 2, kClear = 6, kInsertSegment = 7,
                 kGetFirstSegment = 9, kInitChange = 12, kCommitChange = 13, kPlay = 15,
                 kGetOutputLevel = 18;  // IEditedAudio

class DispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The probe lives in this program; its type library is the module's.
    TheModule().Attach(ModuleUnderTest::Handle());
    Check(
        Probe::Instantiate(nullptr, IID_IUnknown, reinterpret_cast<void**>(owner_.GetAddressOf())));
    edited_ = As<IEditedAudio>(owner_);
    probe_ = static_cast<Probe*>(edited_.Get());
    silence_ = Create<INullReader>(CLSID_CNullReader);
    ASSERT_EQ(silence_->Create(1LL << 40, 48000, 2), S_OK);
    reader_ = As<IAudioReader>(silence_);
  }
  static void TearDownTestSuite() { ReleaseTypeInfo(); }

  ComPtr<IUnknown> owner_;
  ComPtr<IEditedAudio> edited_;
  Probe* probe_ = nullptr;
  ComPtr<INullReader> silence_;
  ComPtr<IAudioReader> reader_;
};

TEST_F(DispatchTest, RefusesUnknownMembersAndReservedIdentifiers) {
  DISPPARAMS none = {};
  EXPECT_EQ(Invoke(reader_.Get(), 0, {}), DISP_E_MEMBERNOTFOUND);
  EXPECT_EQ(Invoke(reader_.Get(), 6, {}), DISP_E_MEMBERNOTFOUND);
  EXPECT_EQ(Invoke(reader_.Get(), -1, {}), DISP_E_MEMBERNOTFOUND);
  // IUnknown and IDispatch themselves are not for automation clients.
  EXPECT_EQ(Invoke(reader_.Get(), 0x60000002, {}), DISP_E_MEMBERNOTFOUND);
  // Methods are no properties; a client that cannot tell may ask for either.
  EXPECT_EQ(Invoke(reader_.Get(), kGetSampleCount, {}, DISPATCH_PROPERTYGET),
            DISP_E_MEMBERNOTFOUND);
  EXPECT_EQ(Invoke(reader_.Get(), kGetSampleCount, {}, DISPATCH_METHOD | DISPATCH_PROPERTYGET),
            S_OK);
  EXPECT_EQ(reader_->Invoke(kGetSampleCount, IID_IDispatch, 0, DISPATCH_METHOD, &none, nullptr,
                            nullptr, nullptr),
            DISP_E_UNKNOWNINTERFACE);
}

TEST_F(DispatchTest, CoercesArgumentsAndReportsTheOneThatItCannot) {
  Bstr number(L"44100");
  Bstr word(L"forty");
  EXPECT_EQ(Invoke(edited_.Get(), kSetFormat, {Text(number), Double(2.0), OfType(VT_EMPTY)}), S_OK);
  EXPECT_THAT(probe_->numbers, ElementsAre(44100, 2, 0));

  struct Case {
    std::vector<VARIANT> arguments;
    UINT index;  // counted from the last argument
    HRESULT hr;
  };
  LONG* const no_long = nullptr;
  VARIANT* const no_variant = nullptr;
  Floats floats(4);
  const std::vector<Case> cases = {
      {{Text(word), Long(2), Long(16)}, 2, DISP_E_TYPEMISMATCH},
      {{Long(1), Text(word), Long(16)}, 1, DISP_E_TYPEMISMATCH},
      {{Long(1), Long(2), Text(word)}, 0, DISP_E_TYPEMISMATCH},
      {{Long(1), Long(2), OfType(VT_NULL)}, 0, DISP_E_TYPEMISMATCH},
      {{FloatArray(floats), Long(2), Long(16)}, 2, DISP_E_TYPEMISMATCH},
      {{OfType(VT_RECORD), Long(2), Long(16)}, 2, DISP_E_TYPEMISMATCH},
      {{Ref(no_long), Long(2), Long(16)}, 2, DISP_E_TYPEMISMATCH},
      {{Ref(no_variant), Long(2), Long(16)}, 2, DISP_E_TYPEMISMATCH},
      {{Long(1), Long(40000), Long(16)}, 1, DISP_E_OVERFLOW},
      {{Long(1), Error(DISP_E_PARAMNOTFOUND), Long(16)}, 1, DISP_E_PARAMNOTOPTIONAL},
      {{Long(1), Long(2)}, kUntouched, DISP_E_BADPARAMCOUNT},
      {{Long(1), Long(2), Long(16), Long(4)}, kUntouched, DISP_E_BADPARAMCOUNT},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(&each - cases.data());
    probe_->numbers = {};
    Outcome outcome(edited_.Get(), kSetFormat, each.arguments);
    EXPECT_EQ(outcome.hr, each.hr);
    EXPECT_EQ(outcome.argument_error, each.index);
    EXPECT_TRUE(probe_->numbers.empty()) << "the method must not be called";
    EXPECT_EQ(outcome.exception.scode, 0);
  }
}

TEST_F(DispatchTest, PassesEveryTypeOfValue) {
  EXPECT_EQ(Invoke(edited_.Get(), kPlay,
                   {Int64(-(1LL << 40)), Double(1099511627776.0), Double(4294967295.0), Long(7)}),
            S_OK);
  EXPECT_THAT(probe_->numbers, ElementsAre(-0x1p40, 0x1p40, 4294967295.0, -1));
  Bstr name(L"Schnitt \x266a");
  EXPECT_EQ(Invoke(edited_.Get(), kInitChange, {Long(1), Text(name)}), S_OK);
  EXPECT_EQ(probe_->text, name.str());
}

TEST_F(DispatchTest, TakesValuesByReferenceAndInVariables) {
  LONG rate = 48000;
  VARIANT channels = Long(2);
  VARIANT inner = Ref(&rate);
  EXPECT_EQ(Invoke(edited_.Get(), kSetFormat, {Ref(&inner), Ref(&channels), Short(16)}), S_OK);
  EXPECT_THAT(probe_->numbers, ElementsAre(48000, 2, 16));
}

TEST_F(DispatchTest, TakesNamedArguments) {
  Bstr method(L"setformat");
  Bstr bits(L"NBITSPERSAMPLE");
  Bstr rate(L"nSamplesPerSec");
  OLECHAR* names[] = {method, bits, rate};
  DISPID ids[3] = {};
  ASSERT_EQ(edited_->GetIDsOfNames(IID_NULL, names, 3, LOCALE_USER_DEFAULT, ids), S_OK);
  EXPECT_THAT(ids, ElementsAre(kSetFormat, 2, 0));

  // The positional argument takes the first place, so name the other two.
  EXPECT_EQ(
      Invoke(edited_.Get(), kSetFormat, {Long(1), Long(24), Long(2)}, DISPATCH_METHOD, {2, 1}),
      S_OK);
  EXPECT_THAT(probe_->numbers, ElementsAre(1, 2, 24));

  Outcome outcome(edited_.Get(), kSetFormat, {Long(1), Long(2), Long(3)}, DISPATCH_METHOD, {1, 9});
  EXPECT_EQ(outcome.hr, DISP_E_PARAMNOTFOUND);
  EXPECT_EQ(outcome.argument_error, 0U);
  EXPECT_EQ(Invoke(edited_.Get(), kSetFormat, {Long(1), Long(2), Long(3)}, DISPATCH_METHOD, {1, 1}),
            DISP_E_PARAMNOTOPTIONAL);
}

TEST_F(DispatchTest, PassesTheArrayItself) {
  const auto expect_filled = [&](Floats& block, VARIANT argument) {
    std::ranges::fill(block.values(), 0.5F);
    EXPECT_EQ(Invoke(reader_.Get(), kReadAudio, {Long(0), argument}), S_OK);
    EXPECT_EQ(block.ToVector(), std::vector<float>(8, 0.0F));
  };
  Floats block(8, 0.5F, 5);
  SAFEARRAY* array = block;
  VARIANT variable = FloatArray(array);
  VARIANT referring = Ref(&array);
  expect_filled(block, FloatArray(array));
  expect_filled(block, Ref(&array));
  expect_filled(block, Ref(&variable));
  expect_filled(block, Ref(&referring));
  EXPECT_EQ(array->cLocks, 0);
}

TEST_F(DispatchTest, RefusesOtherArrays) {
  const ForeignArray shorts(VT_I2);
  VARIANT variable = ShortArray(shorts);
  for (const VARIANT& argument :
       {ShortArray(shorts), Ref(&variable), Long(3), OfType(VT_EMPTY), OfType(VT_NULL)}) {
    Outcome outcome(reader_.Get(), kReadAudio, {Long(0), argument});
    EXPECT_EQ(outcome.hr, DISP_E_TYPEMISMATCH);
    EXPECT_EQ(outcome.argument_error, 0U);
  }
  // Of the right type, but not there or of another shape: the method itself answers.
  const ForeignArray square(VT_R4, 2);
  for (SAFEARRAY* array : {static_cast<SAFEARRAY*>(nullptr), static_cast<SAFEARRAY*>(square)}) {
    Outcome outcome(reader_.Get(), kReadAudio, {Long(0), FloatArray(array)});
    EXPECT_EQ(outcome.hr, DISP_E_EXCEPTION);
    EXPECT_EQ(outcome.exception.scode, E_INVALIDARG);
  }
}

TEST_F(DispatchTest, PassesFloatsToTheMethodDeclaredWithShorts) {
  Floats peaks(8);
  SAFEARRAY* array = peaks;
  for (const VARIANT& argument : {FloatArray(array), Ref(&array)}) {
    probe_->pointer = nullptr;
    EXPECT_EQ(Invoke(edited_.Get(), kReadWaveplot, {Long(1), Long(2), argument}), S_OK);
    EXPECT_EQ(probe_->pointer, array);
  }
  // What the declaration says is let through as well, for the method to judge.
  const ForeignArray shorts(VT_I2);
  EXPECT_EQ(Invoke(edited_.Get(), kReadWaveplot, {Long(1), Long(2), ShortArray(shorts)}), S_OK);
  EXPECT_EQ(probe_->pointer, static_cast<SAFEARRAY*>(shorts));
}

TEST_F(DispatchTest, WritesOutParametersToReferencesAndVariables) {
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(Invoke(reader_.Get(), kGetFormat, {Ref(&rate), Ref(&channels)}), S_OK);
  EXPECT_EQ(rate, 48000);
  EXPECT_EQ(channels, 2);

  // A script's variables, whatever they hold, get values of the declared types.
  VARIANT first = Text(SysAllocString(L"old"));
  VARIANT second = OfType(VT_EMPTY);
  EXPECT_EQ(Invoke(reader_.Get(), kGetFormat, {Ref(&first), Ref(&second)}), S_OK);
  EXPECT_EQ(V_VT(&first), VT_I4);
  EXPECT_EQ(V_I4(&first), 48000);
  EXPECT_EQ(V_VT(&second), VT_I2);
  EXPECT_EQ(V_I2(&second), 2);

  // A script without references passes values; what comes out is lost, but the call is made.
  EXPECT_EQ(Invoke(reader_.Get(), kGetFormat, {Long(0), OfType(VT_EMPTY)}), S_OK);

  double wrong = 0;
  Outcome outcome(reader_.Get(), kGetFormat, {Ref(&wrong), Ref(&channels)});
  EXPECT_EQ(outcome.hr, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(outcome.argument_error, 1U);
  float* const nowhere = nullptr;
  Outcome refused(edited_.Get(), kGetOutputLevel, {Long(0), Ref(nowhere)});
  EXPECT_EQ(refused.exception.scode, E_POINTER);
}

TEST_F(DispatchTest, GivesStringsThatTheCallerOwns) {
  auto texts = As<IMetaDataReader>(owner_);
  VARIANT variable = OfType(VT_EMPTY);
  VARIANT others[3] = {OfType(VT_EMPTY), OfType(VT_EMPTY), OfType(VT_EMPTY)};
  BSTR direct = nullptr;
  const std::vector<VARIANT> arguments = {Ref(&direct), Ref(&variable), Ref(&others[0]),
                                          Ref(&others[1]), Ref(&others[2])};
  EXPECT_EQ(Invoke(texts.Get(), 1, arguments), S_OK);
  EXPECT_STREQ(direct, L"text");
  SysFreeString(direct);
  ASSERT_EQ(V_VT(&variable), VT_BSTR);
  EXPECT_STREQ(V_BSTR(&variable), L"text");
  VariantClear(&variable);
  for (VARIANT& other : others) VariantClear(&other);
  // After a failure the variables keep what they had.
  probe_->answer = E_FAIL;
  direct = nullptr;
  variable = Long(5);
  EXPECT_EQ(Invoke(texts.Get(), 1, arguments), DISP_E_EXCEPTION);
  SysFreeString(direct);
  EXPECT_EQ(V_VT(&variable), VT_I4);
}

TEST_F(DispatchTest, GivesResultsTheirDeclaredTypes) {
  Outcome outcome(reader_.Get(), kGetSampleCount, {});
  EXPECT_EQ(outcome.hr, S_OK);
  EXPECT_EQ(V_VT(&outcome.result), VT_I8);
  EXPECT_EQ(V_I8(&outcome.result), 1LL << 40);
  // A method without a result leaves an empty one.
  Outcome cleared(edited_.Get(), kClear, {});
  EXPECT_EQ(V_VT(&cleared.result), VT_EMPTY);
  // No object is an object of nothing, which scripts can test for.
  Outcome filter(As<IFileFilterMgr>(owner_).Get(), 1, {OfType(VT_EMPTY)});
  EXPECT_EQ(filter.hr, S_OK);
  EXPECT_EQ(V_VT(&filter.result), VT_DISPATCH);
  EXPECT_EQ(V_DISPATCH(&filter.result), nullptr);
}

TEST_F(DispatchTest, TakesAndGivesInterfacePointersWithTheirReferences) {
  // The interface that the parameter declares, also where another one is passed.
  for (const VARIANT& argument :
       {Dispatch(silence_.Get()), Unknown(silence_.Get()), Dispatch(reader_.Get())}) {
    const ULONG before = ReferenceCount(silence_.Get());
    EXPECT_EQ(Invoke(edited_.Get(), kInsertSegment, {Long(1), argument, Long(2), Long(3)}), S_OK);
    EXPECT_EQ(probe_->pointer, reader_.Get());
    EXPECT_EQ(ReferenceCount(silence_.Get()), before);
  }
  EXPECT_EQ(Invoke(edited_.Get(), kInsertSegment, {Long(1), Dispatch(nullptr), Long(2), Long(3)}),
            S_OK);
  EXPECT_EQ(probe_->pointer, nullptr);
  Outcome outcome(edited_.Get(), kInsertSegment,
                  {Long(1), Dispatch(edited_.Get()), Long(2), Long(3)});
  EXPECT_EQ(outcome.hr, DISP_E_TYPEMISMATCH) << "no IAudioReader";
  EXPECT_EQ(outcome.argument_error, 2U);
}

TEST_F(DispatchTest, AddsAReferenceToABorrowedReader) {
  __int64 begin = 5;
  __int64 end = 6;
  const ULONG before = ReferenceCount(reader_.Get());
  VARIANT variable = Long(1);
  IDispatch* direct = edited_.Get();
  // Nothing is lent: the pointer stays as it was and gets no reference.
  Outcome none(edited_.Get(), kGetFirstSegment, {Ref(&direct), Ref(&begin), Ref(&end)});
  EXPECT_EQ(none.hr, S_OK);
  EXPECT_EQ(V_I4(&none.result), 0);
  EXPECT_EQ(direct, edited_.Get());
  EXPECT_EQ(begin, 5);

  probe_->lent = reader_.Get();
  for (const VARIANT& argument : {Ref(&variable), Ref(&direct)}) {
    Outcome outcome(edited_.Get(), kGetFirstSegment, {argument, Ref(&begin), Ref(&end)});
    EXPECT_EQ(outcome.hr, S_OK);
    EXPECT_EQ(V_VT(&outcome.result), VT_I4);
    EXPECT_EQ(V_I4(&outcome.result), 1);
    EXPECT_EQ(begin, 10);
    EXPECT_EQ(end, 1LL << 40);
  }
  EXPECT_EQ(V_VT(&variable), VT_DISPATCH);
  EXPECT_EQ(V_DISPATCH(&variable), reader_.Get());
  EXPECT_EQ(direct, reader_.Get());
  EXPECT_EQ(ReferenceCount(reader_.Get()), before + 2);
  VariantClear(&variable);
  direct->Release();
  // By value nothing comes out, and nothing may stay behind. Nor after a failure.
  EXPECT_EQ(Invoke(edited_.Get(), kGetFirstSegment, {OfType(VT_EMPTY), Ref(&begin), Ref(&end)}),
            S_OK);
  probe_->answer = E_FAIL;
  EXPECT_EQ(Invoke(edited_.Get(), kGetFirstSegment, {Ref(&variable), Ref(&begin), Ref(&end)}),
            DISP_E_EXCEPTION);
  EXPECT_EQ(ReferenceCount(reader_.Get()), before);
}

TEST_F(DispatchTest, ReportsAFailureInTheExceptionAndReturnsSuccessCodes) {
  probe_->answer = HRESULT_FROM_WIN32(ERROR_HANDLE_EOF);
  Outcome outcome(edited_.Get(), kCommitChange, {});
  EXPECT_EQ(outcome.hr, DISP_E_EXCEPTION);
  EXPECT_EQ(outcome.exception.scode, HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
  EXPECT_EQ(outcome.exception.wCode, 0);
  EXPECT_STREQ(outcome.exception.bstrSource, L"Tessaly");
  EXPECT_NE(SysStringLen(outcome.exception.bstrDescription), 0U);
  EXPECT_EQ(outcome.argument_error, kUntouched);

  probe_->answer = S_FALSE;
  EXPECT_EQ(Invoke(edited_.Get(), kCommitChange, {}), S_FALSE);
}

TEST_F(DispatchTest, SurvivesNullPointersEverywhere) {
  VARIANT arguments[] = {Long(16), Long(2), Long(1)};
  DISPPARAMS good = {arguments, nullptr, 3, 0};
  DISPPARAMS none = {};
  const auto invoke = [&](DISPID member, DISPPARAMS* params) {
    return edited_->Invoke(member, IID_NULL, 0, DISPATCH_METHOD, params, nullptr, nullptr, nullptr);
  };
  EXPECT_EQ(invoke(kSetFormat, nullptr), E_INVALIDARG);
  EXPECT_EQ(invoke(kSetFormat, &good), S_OK);
  EXPECT_EQ(invoke(kSetFormat, &none), DISP_E_BADPARAMCOUNT);
  DISPPARAMS no_arguments = {nullptr, nullptr, 3, 0};
  DISPPARAMS no_names = {arguments, nullptr, 3, 1};
  DISPID names[] = {0, 1, 2, 3};
  DISPPARAMS too_many_names = {arguments, names, 3, 4};
  EXPECT_EQ(invoke(kSetFormat, &no_arguments), E_INVALIDARG);
  EXPECT_EQ(invoke(kSetFormat, &no_names), E_INVALIDARG);
  EXPECT_EQ(invoke(kSetFormat, &too_many_names), E_INVALIDARG);
  arguments[0] = OfType(VT_NULL);
  EXPECT_EQ(invoke(kSetFormat, &good), DISP_E_TYPEMISMATCH);
  probe_->answer = E_FAIL;
  EXPECT_EQ(invoke(kCommitChange, &none), DISP_E_EXCEPTION);
  // A result that nobody wants.
  EXPECT_EQ(reader_->Invoke(kGetSampleCount, IID_NULL, 0, DISPATCH_METHOD, &none, nullptr, nullptr,
                            nullptr),
            S_OK);
}

TEST_F(DispatchTest, RefusesUnknownNames) {
  Bstr play(L"pLaY");
  Bstr read(L"ReadAudio");
  DISPID id = 0;
  const auto ask = [&](REFIID reserved, OLECHAR* name, UINT count, DISPID* out) {
    OLECHAR* names[] = {name};
    return edited_->GetIDsOfNames(reserved, names, count, LOCALE_USER_DEFAULT, out);
  };
  EXPECT_EQ(ask(IID_NULL, play, 1, &id), S_OK);
  EXPECT_EQ(id, kPlay);
  EXPECT_EQ(ask(IID_NULL, read, 1, &id), DISP_E_UNKNOWNNAME) << "a name of another interface";
  EXPECT_EQ(id, DISPID_UNKNOWN);
  EXPECT_EQ(ask(IID_IDispatch, play, 1, &id), DISP_E_UNKNOWNINTERFACE);
  EXPECT_EQ(ask(IID_NULL, nullptr, 1, &id), E_POINTER);
  EXPECT_EQ(ask(IID_NULL, play, 1, nullptr), E_POINTER);
  EXPECT_EQ(ask(IID_NULL, play, 0, &id), E_INVALIDARG);
}

}  // namespace
}  // namespace marlinda::testing
