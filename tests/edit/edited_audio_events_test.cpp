#include <gtest/gtest.h>
#include <olectl.h>

#include "tests/edit/document.h"
#include "tests/edit/event_sink.h"

namespace marlinda::testing {
namespace {

HRESULT STDMETHODCALLTYPE FillInLater(EXCEPINFO* exception) {
  exception->bstrDescription = SysAllocString(L"second, deferred");
  return S_OK;
}

class EditedAudioEvents : public ::testing::Test {
 protected:
  ComPtr<Sink> MakeSink(const char* name, const IID& iid = DIID__IEAUpdateEvents) {
    const auto sink = MakeObject<Sink>(name, &log_, iid);
    if (!IsEqualIID(iid, IID_IDispatch)) sink->Connect(document_);
    return sink;
  }
  // A change without edits, which fires the content event once.
  CallLog Commit() {
    log_.clear();
    EXPECT_EQ(document_->InitChange(0, nullptr), S_OK);
    EXPECT_EQ(document_->CommitChange(), S_OK);
    return log_;
  }

  CallLog log_;
  const ComPtr<RampSource> a_ = RampSource::Make('A', 1);
  Document document_;
};

TEST_F(EditedAudioEvents, HasAPointForEachEventInterface) {
  const auto container = As<IConnectionPointContainer>(document_.edit);
  ComPtr<IEnumConnectionPoints> points;
  ASSERT_EQ(container->EnumConnectionPoints(points.GetAddressOf()), S_OK);
  for (const IID* iid : {&DIID__IEAUpdateEvents, &DIID__IEAUndoEvents, &IID_IPropertyNotifySink}) {
    ComPtr<IConnectionPoint> point;
    ASSERT_EQ(points->Next(1, point.GetAddressOf(), nullptr), S_OK);
    IID found = IID_NULL;
    EXPECT_EQ(point->GetConnectionInterface(&found), S_OK);
    EXPECT_TRUE(IsEqualIID(found, *iid));
    EXPECT_EQ(point.Get(), Sink("", &log_, *iid).Point(document_).Get());
    ComPtr<IConnectionPointContainer> owner;
    EXPECT_EQ(point->GetConnectionPointContainer(owner.GetAddressOf()), S_OK);
    EXPECT_EQ(owner.Get(), container.Get());
    EXPECT_FALSE(As<IEditedAudio>(point)) << "the point has no identity of its own";
  }
  ComPtr<IConnectionPoint> none;
  EXPECT_EQ(points->Next(1, none.GetAddressOf(), nullptr), S_FALSE);
  EXPECT_EQ(container->FindConnectionPoint(IID_IDispatch, none.GetAddressOf()),
            CONNECT_E_NOCONNECTION);
  const auto info = As<IProvideClassInfo2>(document_.edit);
  GUID guid = {};
  EXPECT_EQ(info->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &guid), S_OK);
  EXPECT_TRUE(IsEqualIID(guid, DIID__IEAUpdateEvents));
  EXPECT_EQ(info->GetGUID(0, &guid), E_INVALIDARG);
}

TEST_F(EditedAudioEvents, CallsTheSinksInTheOrderOfTheirSlots) {
  const auto a = MakeSink("a");
  const auto b = MakeSink("b");
  const auto c = MakeSink("c");
  EXPECT_EQ(Commit(), (CallLog{"a3", "b3", "c3"}));
  b->Disconnect(document_);
  EXPECT_EQ(b->Held(), 0);
  EXPECT_EQ(Commit(), (CallLog{"a3", "c3"}));
  const auto point = a->Point(document_);
  for (const DWORD wrong : {0UL, b->cookie, c->cookie + 1, 0xFFFFFFFFUL}) {
    EXPECT_EQ(point->Unadvise(wrong), CONNECT_E_NOCONNECTION);
  }
  // A sink with nothing but IDispatch receives events too. It gets the free slot.
  const auto plain = MakeSink("p", IID_IDispatch);
  EXPECT_EQ(point->Advise(plain.Get(), &plain->cookie), S_OK);
  EXPECT_EQ(plain->cookie, b->cookie);
  EXPECT_EQ(Commit(), (CallLog{"a3", "p3", "c3"}));

  ComPtr<IEnumConnections> connections;
  ASSERT_EQ(point->EnumConnections(connections.GetAddressOf()), S_OK);
  const DWORD cookies[] = {a->cookie, b->cookie, c->cookie};
  for (const DWORD cookie : cookies) {
    CONNECTDATA data = {};
    ASSERT_EQ(connections->Next(1, &data, nullptr), S_OK);
    EXPECT_EQ(data.dwCookie, cookie);
    data.pUnk->Release();
  }
  DWORD cookie = 7;
  EXPECT_EQ(point->Advise(nullptr, &cookie), E_POINTER);
  EXPECT_EQ(cookie, 0u);
  for (const IID* iid : {&DIID__IEAUndoEvents, &IID_IPropertyNotifySink}) {
    IUnknown* const sink = iid == &DIID__IEAUndoEvents ? a.Get() : plain.Get();
    EXPECT_EQ(Sink("", &log_, *iid).Point(document_)->Advise(sink, &cookie),
              CONNECT_E_CANNOTCONNECT);
  }
}

TEST_F(EditedAudioEvents, AFailingSinkLeavesItsErrorAndStopsNobody) {
  const auto described = [] {
    ComPtr<IErrorInfo> error;
    Bstr description;
    EXPECT_EQ(GetErrorInfo(0, error.GetAddressOf()), S_OK);
    if (error) error->GetDescription(description.Receive());
    return description.str();
  };
  const auto a = MakeSink("a");
  const auto b = MakeSink("b");
  a->on_event = [](DISPPARAMS*, EXCEPINFO* exception) {
    exception->bstrDescription = SysAllocString(L"first");
    return DISP_E_EXCEPTION;
  };
  b->on_event = [](DISPPARAMS*, EXCEPINFO* exception) {
    exception->pfnDeferredFillIn = FillInLater;
    return DISP_E_EXCEPTION;
  };
  EXPECT_EQ(Commit(), (CallLog{"a3", "b3"}));
  EXPECT_EQ(described(), L"second, deferred");
  // A failure without a description replaces the description of an earlier one.
  b->on_event = [](DISPPARAMS*, EXCEPINFO*) { return E_NOTIMPL; };
  Commit();
  EXPECT_EQ(described(), L"");
}

TEST_F(EditedAudioEvents, ASinkMayConnectDisconnectAndEditDuringAnEvent) {
  const auto a = MakeSink("a");
  const auto b = MakeSink("b");
  const auto c = MakeSink("c");
  ComPtr<Sink> late;
  a->on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    a->Disconnect(document_);
    b->Disconnect(document_);
    late = MakeSink("l");
    document_.Append(a_, 0, 5);
    return document_->InitChange(0, nullptr);
  };
  // A disconnected sink is not called any more, a new one from the next event on.
  EXPECT_EQ(Commit(), (CallLog{"a3", "c3"}));
  EXPECT_EQ(b->Held(), 0);
  EXPECT_EQ(document_.Text(), "A[0,5)");
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_EQ(log_, (CallLog{"a3", "c3", "l3", "c3"}));
}

TEST_F(EditedAudioEvents, OffersTheDocumentForUndoBeforeAnythingChanges) {
  document_.Append(a_, 0, 10);
  const Document undo;
  const auto sink = MakeSink("u", DIID__IEAUndoEvents);
  const auto second = MakeSink("v", DIID__IEAUndoEvents);
  sink->on_event = second->on_event = [&](DISPPARAMS* params, EXCEPINFO*) {
    VARIANTARG* const arguments = params->rgvarg;
    EXPECT_EQ(params->cArgs, 2u);
    EXPECT_TRUE(V_VT(&arguments[0]) == VT_UNKNOWN && V_VT(&arguments[1]) == VT_BSTR);
    EXPECT_STREQ(V_BSTR(&arguments[1]), L"Cut");
    EXPECT_EQ(V_UNKNOWN(&arguments[0]), As<IUnknown>(document_.edit).Get());
    EXPECT_EQ(As<IEditedAudio>(V_UNKNOWN(&arguments[0]))->CopyAll(undo), S_OK);
    // Against the rules, and without harm to the next sink and the caller.
    VariantClear(&arguments[0]);
    VariantClear(&arguments[1]);
    return S_OK;
  };
  const Bstr name(L"Cut");
  EXPECT_EQ(document_->InitChange(-1, name), S_OK);
  EXPECT_EQ(name.str(), L"Cut");
  EXPECT_EQ(undo.Text(), "A[0,10)");
  EXPECT_EQ(log_, (CallLog{"u1", "v1"}));
  // An open change refuses another one and fires nothing.
  EXPECT_EQ(document_->InitChange(1, name), E_FAIL);
  EXPECT_EQ(log_.size(), 2u);
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_EQ(document_->CommitChange(), E_FAIL);
  EXPECT_EQ(document_->RollbackChange(), E_FAIL);
  EXPECT_EQ(Commit(), CallLog());
}

TEST_F(EditedAudioEvents, OnlyACommitFiresAndARollbackEmptiesTheDocument) {
  const auto sink = MakeSink("a");
  document_.Append(a_, 0, 10);
  EXPECT_EQ(document_->InitChange(1, nullptr), S_OK);
  EXPECT_EQ(a_->Held(), 2) << "no snapshot";
  document_.AddLabel("l", 1);
  document_.AddMarker("m", 1, 2);
  EXPECT_EQ(document_->RollbackChange(), S_OK);
  EXPECT_EQ(document_.Text(), "");
  EXPECT_EQ(a_->Held(), 0);
  EXPECT_EQ(log_, CallLog());
  document_.Append(a_, 0, 10);
  EXPECT_EQ(Commit(), (CallLog{"a3"}));
  EXPECT_EQ(a_->Held(), 1);
  // Without a snapshot, the change does not open.
  ModuleUnderTest::Revoke();
  const HRESULT hr = document_->InitChange(0, nullptr);
  ModuleUnderTest::Load();
  EXPECT_TRUE(FAILED(hr) && hr != E_FAIL) << hr;
  EXPECT_EQ(document_->CommitChange(), E_FAIL);
}

TEST_F(EditedAudioEvents, ASinkMayReleaseTheDocumentThatCallsIt) {
  for (const IID* iid : {&DIID__IEAUpdateEvents, &DIID__IEAUndoEvents}) {
    auto doomed = Create<IEditedAudio>(CLSID_CEditedAudio);
    IEditedAudio* const raw = doomed.Get();
    raw->AppendSegment(a_.Get(), 0, 10);
    const auto sink = MakeObject<Sink>("d", &log_, *iid);
    sink->Connect(raw);
    sink->on_event = [&](DISPPARAMS*, EXCEPINFO*) { return doomed.Reset(), S_OK; };
    const bool undo = iid == &DIID__IEAUndoEvents;
    EXPECT_EQ(raw->InitChange(undo ? 1 : 0, nullptr), S_OK);
    EXPECT_EQ(undo ? S_OK : raw->CommitChange(), S_OK);
    EXPECT_EQ(doomed.Get(), nullptr);
    EXPECT_EQ(sink->Held() + a_->Held(), 0);
  }
}

}  // namespace
}  // namespace marlinda::testing
