// IDispatch of the module's objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

// An argument as a client makes it. It owns nothing.
template <class T>
VARIANT Value(int type, T value) {
  VARIANT variant;
  VariantInit(&variant);
  V_VT(&variant) = static_cast<VARTYPE>(type);
  std::memcpy(&V_I8(&variant), &value, sizeof value);
  return variant;
}
// By reference; null where `value` is null.
template <class T>
VARIANT Reference(int type, T* value) {
  return Value(VT_BYREF | type, value);
}
VARIANT Long(LONG value) { return Value(VT_I4, value); }
VARIANT Array(SAFEARRAY* array) { return Value(VT_ARRAY | VT_R4, array); }
VARIANT Variable(VARIANT& variable) { return Reference(VT_VARIANT, &variable); }
const VARIANT kEmpty = Value(VT_EMPTY, 0);

constexpr UINT kUntouched = 77;

// A call and its results, which it owns.
struct Outcome {
  // The arguments are in the order of the declaration. The last ones can be named, by the
  // identifiers of their parameters.
  Outcome(IDispatch* object, DISPID member, std::vector<VARIANT> arguments,
          std::vector<DISPID> named = {}, WORD flags = DISPATCH_METHOD) {
    std::ranges::reverse(arguments);
    std::ranges::reverse(named);
    DISPPARAMS params = {arguments.data(), named.data(), static_cast<UINT>(arguments.size()),
                         static_cast<UINT>(named.size())};
    V_VT(&result) = 0x7ead;  // must be overwritten, not cleared
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

// DISPIDs: the places of the methods in their interfaces.
constexpr DISPID kCreate = 1;                                          // INullReader
constexpr DISPID kReadAudio = 1, kGetFormat = 2, kGetSampleCount = 3;  // IAudioReader
constexpr DISPID kAddLabel = 1, kGetLabel = 3;                         // ILabelSupport
constexpr DISPID kReadWaveplot = 1, kClear = 6, kInsertSegment = 7, kGetFirstSegment = 9,
                 kPlay = 15;             // IEditedAudio
constexpr DISPID kCreateLastReader = 5;  // IAudioPool

class Dispatch : public ::testing::Test {
 protected:
  Dispatch() { Reset(); }
  void Reset() const { EXPECT_EQ(silence_->Create(1LL << 40, 48000, 2), S_OK); }

  // Frames, rate and channels of the reader.
  std::vector<double> Format() const {
    __int64 count = 0;
    LONG rate = 0;
    SHORT channels = 0;
    EXPECT_EQ(reader_->GetSampleCount(&count), S_OK);
    EXPECT_EQ(reader_->GetFormat(&rate, &channels), S_OK);
    return {static_cast<double>(count), static_cast<double>(rate), static_cast<double>(channels)};
  }

  const ComPtr<INullReader> silence_ = Create<INullReader>(CLSID_CNullReader);
  const ComPtr<IAudioReader> reader_ = As<IAudioReader>(silence_);
  const ComPtr<IEditedAudio> document_ = Create<IEditedAudio>(CLSID_CEditedAudio);
};

TEST_F(Dispatch, CoercesArgumentsByPlaceByReferenceInVariablesAndByName) {
  Bstr number(L"44100");
  Bstr word(L"forty");
  __int64 count = -(1LL << 40);
  VARIANT inner = Reference(VT_I8, &count);
  VARIANT channels = Value(VT_I2, SHORT{2});
  struct Case {
    std::vector<VARIANT> arguments;
    HRESULT hr;
    UINT index = kUntouched;  // counted from the last argument
    std::vector<double> format = {};
    std::vector<DISPID> named = {};
  };
  const std::vector<Case> cases = {
      {{Value(VT_R8, 0x1p40), Value(VT_BSTR, BSTR{number}), kEmpty},
       S_OK,
       kUntouched,
       {0x1p40, 44100, 0}},
      {{Variable(inner), Long(8000), Variable(channels)}, S_OK, kUntouched, {-0x1p40, 8000, 2}},
      {{Long(1), Long(6), Long(2)}, S_OK, kUntouched, {1, 2, 6}, {2, 1}},
      {{Long(1), Long(2), Long(3)}, DISP_E_PARAMNOTFOUND, 0, {}, {1, 9}},
      {{Long(1), Long(2), Long(3)}, DISP_E_PARAMNOTOPTIONAL, kUntouched, {}, {1, 1}},
      {{Value(VT_BSTR, BSTR{word}), Long(2), Long(3)}, DISP_E_TYPEMISMATCH, 2},
      {{Long(1), Long(2), Value(VT_NULL, 0)}, DISP_E_TYPEMISMATCH, 0},
      {{Reference<LONG>(VT_I4, nullptr), Long(2), Long(3)}, DISP_E_TYPEMISMATCH, 2},
      {{Reference<VARIANT>(VT_VARIANT, nullptr), Long(2), Long(3)}, DISP_E_TYPEMISMATCH, 2},
      {{Long(1), Long(2), Long(40000)}, DISP_E_OVERFLOW, 0},
      {{Long(1), Value(VT_ERROR, DISP_E_PARAMNOTFOUND), Long(3)}, DISP_E_PARAMNOTOPTIONAL, 1},
      {{Long(1), Long(2)}, DISP_E_BADPARAMCOUNT},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(&each - cases.data());
    Reset();
    const std::vector<double> before = Format();
    Outcome outcome(silence_.Get(), kCreate, each.arguments, each.named);
    EXPECT_EQ(outcome.hr, each.hr);
    EXPECT_EQ(outcome.argument_error, each.index);
    EXPECT_EQ(Format(), each.hr == S_OK ? each.format : before);
  }
}

TEST_F(Dispatch, PassesFloatArraysThemselvesAndRefusesOtherElements) {
  Floats block(8, 0.5F, 5);
  SAFEARRAY* array = block;
  VARIANT variable = Array(array);
  VARIANT reference = Reference(VT_ARRAY | VT_R4, &array);
  VARIANT outer = Variable(variable);
  ASSERT_EQ(document_->SetFormat(44100, 1, 16), S_OK);
  ASSERT_EQ(document_->AppendSegment(nullptr, 0, 8), S_OK);
  for (const VARIANT& argument :
       {Array(array), Variable(variable), Variable(reference), Variable(outer)}) {
    std::ranges::fill(block.values(), 0.5F);
    EXPECT_EQ(Outcome(reader_.Get(), kReadAudio, {Long(0), argument}).hr, S_OK);
    EXPECT_THAT(block.ToVector(), ::testing::Each(0.0F));
    // Declared with shorts, for which the peaks are no numbers.
    std::ranges::fill(block.values(), 0.5F);
    EXPECT_EQ(Outcome(document_.Get(), kReadWaveplot, {Long(0), Long(8), argument}).hr, S_OK);
    EXPECT_THAT(block.ToVector(), ::testing::Each(0.0F));
  }
  EXPECT_EQ(array->cLocks, 0);

  const ForeignArray shorts(VT_I2);
  VARIANT foreign = Value(VT_ARRAY | VT_I2, static_cast<SAFEARRAY*>(shorts));
  for (const VARIANT& argument : {foreign, Variable(foreign), Long(3), kEmpty}) {
    Outcome outcome(reader_.Get(), kReadAudio, {Long(0), argument});
    EXPECT_EQ(outcome.hr, DISP_E_TYPEMISMATCH);
    EXPECT_EQ(outcome.argument_error, 0U);
  }
  // The method itself refuses an array of the declared type that it cannot use.
  Outcome refused(document_.Get(), kReadWaveplot, {Long(0), Long(8), foreign});
  EXPECT_EQ(refused.exception.scode, E_INVALIDARG);
}

TEST_F(Dispatch, WritesOutParametersToReferencesAndVariables) {
  LONG rate = 0;
  SHORT channels = 0;
  const VARIANT to_channels = Reference(VT_I2, &channels);
  EXPECT_EQ(Outcome(reader_.Get(), kGetFormat, {Reference(VT_I4, &rate), to_channels}).hr, S_OK);
  EXPECT_EQ(rate, 48000);
  EXPECT_EQ(channels, 2);
  // By value the results are lost.
  EXPECT_EQ(Outcome(reader_.Get(), kGetFormat, {Long(0), kEmpty}).hr, S_OK);
  double wrong = 0;
  Outcome mismatch(reader_.Get(), kGetFormat, {Reference(VT_R8, &wrong), to_channels});
  EXPECT_EQ(mismatch.hr, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(mismatch.argument_error, 1U);
  Outcome refused(reader_.Get(), kGetFormat, {Reference<LONG>(VT_I4, nullptr), to_channels});
  EXPECT_EQ(refused.exception.scode, E_POINTER);

  const auto labels = As<ILabelSupport>(document_);
  Bstr name(L"Schnitt \x00e4");
  Bstr direct;
  VARIANT position = kEmpty;
  VARIANT variable = Value(VT_BSTR, SysAllocString(L"old"));
  const auto get_label = [&](LONG index, const VARIANT& to) {
    return Outcome(labels.Get(), kGetLabel, {Long(index), Variable(position), to}).hr;
  };
  EXPECT_EQ(Outcome(labels.Get(), kAddLabel, {Long(7), Value(VT_BSTR, BSTR{name})}).hr, S_OK);
  EXPECT_EQ(get_label(0, Reference(VT_BSTR, direct.Receive())), S_OK);
  EXPECT_EQ(direct.str(), name.str());
  EXPECT_EQ(V_VT(&position), VT_I8);
  EXPECT_EQ(V_I8(&position), 7);
  EXPECT_EQ(get_label(0, Variable(variable)), S_OK);
  EXPECT_EQ(V_BSTR(&variable), name.str());
  VariantClear(&variable);
  variable = Long(5);
  EXPECT_EQ(get_label(1, Variable(variable)), DISP_E_EXCEPTION);
  EXPECT_EQ(V_VT(&variable), VT_I4) << "a failure keeps the variable";
}

TEST_F(Dispatch, GivesResultsTheirDeclaredTypesAndFailuresInTheException) {
  Outcome count(reader_.Get(), kGetSampleCount, {});
  EXPECT_EQ(V_VT(&count.result), VT_I8);
  EXPECT_EQ(V_I8(&count.result), 1LL << 40);
  Outcome cleared(document_.Get(), kClear, {});
  EXPECT_EQ(V_VT(&cleared.result), VT_EMPTY);
  // No object is an object of nothing, which scripts can test for.
  Outcome none(Create<IAudioPool>(CLSID_CAudioPool).Get(), kCreateLastReader, {});
  EXPECT_EQ(none.hr, S_FALSE);
  EXPECT_EQ(V_VT(&none.result), VT_DISPATCH);
  EXPECT_EQ(V_DISPATCH(&none.result), nullptr);

  Floats block(2);
  Outcome failed(As<IAudioReader>(Create<IUnknown>(CLSID_CAudioPoolReader)).Get(), kReadAudio,
                 {Long(0), Array(block)});
  EXPECT_EQ(failed.hr, DISP_E_EXCEPTION);
  EXPECT_EQ(failed.exception.scode, HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
  EXPECT_STREQ(failed.exception.bstrSource, L"Tessaly");
  EXPECT_NE(SysStringLen(failed.exception.bstrDescription), 0U);
  EXPECT_EQ(failed.argument_error, kUntouched);
}

TEST_F(Dispatch, PassesTheInterfaceThatTheParameterDeclaresAndAddsAReferenceToABorrowedOne) {
  IDispatch* direct = document_.Get();
  VARIANT variable = Long(1);
  __int64 begin = 5;
  __int64 end = 6;
  const VARIANT to_direct = Reference(VT_DISPATCH, &direct);
  const auto first_segment = [&](const VARIANT& source) {
    Outcome outcome(document_.Get(), kGetFirstSegment,
                    {source, Reference(VT_I8, &begin), Reference(VT_I8, &end)});
    EXPECT_EQ(outcome.hr, S_OK);
    return V_I4(&outcome.result);
  };
  Outcome nowhere(document_.Get(), kGetFirstSegment,
                  {Reference<IDispatch*>(VT_DISPATCH, nullptr), Reference(VT_I8, &begin), kEmpty});
  EXPECT_EQ(nowhere.exception.scode, E_POINTER);
  EXPECT_EQ(first_segment(to_direct), 0);
  EXPECT_EQ(direct, document_.Get()) << "nothing is lent";
  EXPECT_EQ(begin, 5);

  const auto insert = [this](int type, IUnknown* object) {
    return Outcome(document_.Get(), kInsertSegment,
                   {Long(0), Value(type, object), Long(2), Long(3)});
  };
  const ULONG before = ReferenceCount(silence_.Get());
  EXPECT_EQ(insert(VT_DISPATCH, nullptr).hr, S_OK);
  EXPECT_EQ(insert(VT_UNKNOWN, silence_.Get()).hr, S_OK);
  EXPECT_EQ(first_segment(to_direct), 1);
  EXPECT_EQ(first_segment(Variable(variable)), 1);
  EXPECT_EQ(first_segment(kEmpty), 1) << "by value nothing comes out";
  EXPECT_EQ(begin, 2);
  EXPECT_EQ(end, 3);
  EXPECT_EQ(direct, reader_.Get());
  EXPECT_EQ(V_VT(&variable), VT_DISPATCH);
  EXPECT_EQ(V_DISPATCH(&variable), reader_.Get());
  EXPECT_EQ(ReferenceCount(silence_.Get()), before + 3);
  VariantClear(&variable);
  direct->Release();
  EXPECT_EQ(document_->Clear(), S_OK);
  EXPECT_EQ(ReferenceCount(silence_.Get()), before);
  const auto no_reader = Create<IAudioPool>(CLSID_CAudioPool);
  const Outcome refused = insert(VT_DISPATCH, no_reader.Get());
  EXPECT_EQ(refused.hr, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(refused.argument_error, 2U);
}

TEST_F(Dispatch, RefusesUnknownMembersPropertiesAndIncoherentArguments) {
  const auto invoke = [this](DISPID member, WORD flags) {
    return Outcome(reader_.Get(), member, {}, {}, flags).hr;
  };
  // The last one is a method of IDispatch itself.
  for (const DISPID member : {0, 6, -1, 0x60000002}) {
    EXPECT_EQ(invoke(member, DISPATCH_METHOD), DISP_E_MEMBERNOTFOUND) << member;
  }
  EXPECT_EQ(invoke(kGetSampleCount, DISPATCH_PROPERTYGET), DISP_E_MEMBERNOTFOUND);
  EXPECT_EQ(invoke(kGetSampleCount, DISPATCH_METHOD | DISPATCH_PROPERTYGET), S_OK);

  VARIANT arguments[] = {Long(16), Long(2), Long(1)};
  DISPID names[] = {0, 1, 2, 3};
  DISPPARAMS good = {arguments, nullptr, 3, 0};
  DISPPARAMS no_arguments = {nullptr, nullptr, 3, 0};
  DISPPARAMS no_names = {arguments, nullptr, 3, 1};
  DISPPARAMS too_many_names = {arguments, names, 3, 4};
  // A caller who wants neither result nor exception nor index.
  const auto create = [this](DISPPARAMS* params, REFIID reserved = IID_NULL) {
    return silence_->Invoke(kCreate, reserved, 0, DISPATCH_METHOD, params, nullptr, nullptr,
                            nullptr);
  };
  EXPECT_EQ(create(&good), S_OK);
  EXPECT_EQ(create(&good, IID_IDispatch), DISP_E_UNKNOWNINTERFACE);
  for (DISPPARAMS* const wrong :
       {&no_arguments, &no_names, &too_many_names, static_cast<DISPPARAMS*>(nullptr)}) {
    EXPECT_EQ(create(wrong), E_INVALIDARG);
  }
}

TEST_F(Dispatch, FindsNamesOfMembersAndParametersInAnyCase) {
  OLECHAR play[] = L"pLaY";
  OLECHAR mask[] = L"DWCHANNELMASK";
  OLECHAR other[] = L"ReadAudio";  // of another interface
  OLECHAR* names[] = {play, mask};
  OLECHAR* unknown[] = {other};
  OLECHAR* none[] = {nullptr};
  DISPID ids[2] = {};
  const auto ask = [&](OLECHAR** asked, UINT count, DISPID* out, REFIID reserved = IID_NULL) {
    return document_->GetIDsOfNames(reserved, asked, count, 0, out);
  };
  EXPECT_EQ(ask(names, 2, ids), S_OK);
  EXPECT_THAT(ids, ::testing::ElementsAre(kPlay, 2));
  EXPECT_EQ(ask(unknown, 1, ids), DISP_E_UNKNOWNNAME);
  EXPECT_EQ(ids[0], DISPID_UNKNOWN);
  EXPECT_EQ(ask(names, 1, ids, IID_IDispatch), DISP_E_UNKNOWNINTERFACE);
  EXPECT_EQ(ask(none, 1, ids), E_POINTER);
  EXPECT_EQ(ask(names, 1, nullptr), E_POINTER);
  EXPECT_EQ(ask(names, 0, ids), E_INVALIDARG);
}

}  // namespace
}  // namespace marlinda::testing
