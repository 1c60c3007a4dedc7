#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <olectl.h>

#include "tests/edit/document.h"
#include "tests/edit/event_sink.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::wstring CurrentErrorDescription() {
  ComPtr<IErrorInfo> error;
  if (GetErrorInfo(0, error.GetAddressOf()) != S_OK) return L"(none)";
  Bstr description;
  error->GetDescription(description.Receive());
  return description.str();
}

HRESULT STDMETHODCALLTYPE FillInLater(EXCEPINFO* exception) {
  exception->bstrSource = SysAllocString(L"source");
  exception->bstrDescription = SysAllocString(L"second, deferred");
  return S_OK;
}

class EditedAudioEvents : public ::testing::Test {
 protected:
  ComPtr<IConnectionPoint> Point(const IID& iid) {
    ComPtr<IConnectionPoint> point;
    EXPECT_EQ(As<IConnectionPointContainer>(document_.edit)
                  ->FindConnectionPoint(iid, point.GetAddressOf()),
              S_OK);
    return point;
  }
  DWORD Connect(Sink& sink, const IID& iid = DIID__IEAUpdateEvents) {
    DWORD cookie = 0;
    EXPECT_EQ(Point(iid)->Advise(&sink, &cookie), S_OK);
    EXPECT_NE(cookie, 0u);
    return cookie;
  }
  void Disconnect(DWORD cookie, const IID& iid = DIID__IEAUpdateEvents) {
    EXPECT_EQ(Point(iid)->Unadvise(cookie), S_OK);
  }
  Sink UpdateSink(const char* name) { return {name, DIID__IEAUpdateEvents, &log_}; }
  // A change without edits, which fires the content event once.
  void Commit() {
    EXPECT_EQ(document_->InitChange(0, nullptr), S_OK);
    EXPECT_EQ(document_->CommitChange(), S_OK);
  }

  CallLog log_;
  const ComPtr<RampSource> a_ = RampSource::Make('A', 1);
  Document document_;
};

TEST_F(EditedAudioEvents, ListsItsPointsAndTheirConnections) {
  auto container = As<IConnectionPointContainer>(document_.edit);
  ComPtr<IEnumConnectionPoints> points;
  ASSERT_EQ(container->EnumConnectionPoints(points.GetAddressOf()), S_OK);
  for (const IID* iid : {&DIID__IEAUpdateEvents, &DIID__IEAUndoEvents, &IID_IPropertyNotifySink}) {
    ComPtr<IConnectionPoint> point;
    ULONG fetched = 0;
    ASSERT_EQ(points->Next(1, point.GetAddressOf(), &fetched), S_OK);
    IID found = IID_NULL;
    EXPECT_EQ(point->GetConnectionInterface(&found), S_OK);
    EXPECT_TRUE(IsEqualIID(found, *iid));
    EXPECT_EQ(point.Get(), Point(*iid).Get());
    ComPtr<IConnectionPointContainer> owner;
    EXPECT_EQ(point->GetConnectionPointContainer(owner.GetAddressOf()), S_OK);
    EXPECT_EQ(owner.Get(), container.Get());
    // An identity of its own, not another interface of the document.
    EXPECT_EQ(As<IEditedAudio>(point), nullptr);
  }
  ComPtr<IConnectionPoint> none;
  EXPECT_EQ(points->Next(1, none.GetAddressOf(), nullptr), S_FALSE);

  Sink first = UpdateSink("a");
  Sink second = UpdateSink("b");
  const DWORD first_cookie = Connect(first);
  const DWORD cookie = Connect(second);
  {
    ComPtr<IEnumConnections> connections;
    ASSERT_EQ(Point(DIID__IEAUpdateEvents)->EnumConnections(connections.GetAddressOf()), S_OK);
    CONNECTDATA data[3] = {};
    ULONG fetched = 0;
    EXPECT_EQ(connections->Next(3, data, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 2u);
    EXPECT_EQ(data[0].pUnk, &first);
    EXPECT_EQ(data[1].pUnk, &second);
    EXPECT_EQ(data[1].dwCookie, cookie);
    data[0].pUnk->Release();
    data[1].pUnk->Release();
  }
  Disconnect(first_cookie);
  Disconnect(cookie);
  EXPECT_EQ(second.Held(), 0);
}

TEST_F(EditedAudioEvents, RefusesWrongSinksAndCookies) {
  ComPtr<IConnectionPoint> point;
  EXPECT_EQ(As<IConnectionPointContainer>(document_.edit)
                ->FindConnectionPoint(IID_IDispatch, point.GetAddressOf()),
            CONNECT_E_NOCONNECTION);
  point = Point(DIID__IEAUpdateEvents);
  Sink sink = UpdateSink("a");
  DWORD cookie = 7;
  EXPECT_EQ(point->Advise(nullptr, &cookie), E_POINTER);
  EXPECT_EQ(cookie, 0u);
  EXPECT_EQ(Point(IID_IPropertyNotifySink)->Advise(a_.Get(), &cookie), CONNECT_E_CANNOTCONNECT);
  EXPECT_EQ(Point(DIID__IEAUndoEvents)->Advise(&sink, &cookie), CONNECT_E_CANNOTCONNECT);
  cookie = Connect(sink);
  for (const DWORD wrong : {0ul, cookie + 1, 0xFFFFFFFFul}) {
    EXPECT_EQ(point->Unadvise(wrong), CONNECT_E_NOCONNECTION);
  }
  EXPECT_EQ(point->Unadvise(cookie), S_OK);
  EXPECT_EQ(point->Unadvise(cookie), CONNECT_E_NOCONNECTION);
  EXPECT_EQ(sink.Held(), 0);
  // A sink with nothing but IDispatch receives events too.
  Sink plain("p", IID_IDispatch, &log_);
  cookie = Connect(plain);
  Commit();
  EXPECT_THAT(log_, ElementsAre("p3"));
  Disconnect(cookie);
}

TEST_F(EditedAudioEvents, NamesItsDefaultEventInterface) {
  auto info = As<IProvideClassInfo2>(document_.edit);
  ASSERT_TRUE(info);
  GUID guid = {};
  EXPECT_EQ(info->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &guid), S_OK);
  EXPECT_TRUE(IsEqualIID(guid, DIID__IEAUpdateEvents));
  EXPECT_EQ(info->GetGUID(0, &guid), E_INVALIDARG);
}

TEST_F(EditedAudioEvents, OffersTheDocumentForUndoBeforeAnythingChanges) {
  document_.Append(a_, 0, 10);
  Document undo;
  std::wstring operation;
  Sink sink("u", DIID__IEAUndoEvents, &log_);
  sink.on_event = [&](DISPPARAMS* params, EXCEPINFO*) {
    EXPECT_EQ(params->cArgs, 2u);
    EXPECT_EQ(V_VT(&params->rgvarg[0]), VT_UNKNOWN);
    EXPECT_EQ(V_VT(&params->rgvarg[1]), VT_BSTR);
    operation = V_BSTR(&params->rgvarg[1]);
    EXPECT_EQ(V_UNKNOWN(&params->rgvarg[0]), As<IUnknown>(document_.edit).Get());
    EXPECT_EQ(As<IEditedAudio>(V_UNKNOWN(&params->rgvarg[0]))->CopyAll(undo), S_OK);
    return S_OK;
  };
  const DWORD cookie = Connect(sink, DIID__IEAUndoEvents);
  EXPECT_EQ(document_->InitChange(1, Bstr(L"Cut")), S_OK);
  EXPECT_EQ(operation, L"Cut");
  EXPECT_EQ(undo.Segments(), "A[0,10)");
  // An open change refuses another one and fires nothing.
  EXPECT_EQ(document_->InitChange(1, Bstr(L"Again")), E_FAIL);
  EXPECT_THAT(log_, ElementsAre("u1"));
  document_->Delete(2, 4);
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_EQ(document_->CommitChange(), E_FAIL);
  EXPECT_EQ(document_->RollbackChange(), E_FAIL);
  EXPECT_EQ(document_->InitChange(0, nullptr), S_OK);
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_THAT(log_, ElementsAre("u1"));
  Disconnect(cookie, DIID__IEAUndoEvents);
}

TEST_F(EditedAudioEvents, ASnapshotIsHeldForTheLengthOfTheChange) {
  document_.Append(a_, 0, 10);
  EXPECT_EQ(document_->InitChange(0, nullptr), S_OK);
  EXPECT_EQ(a_->Held(), 2);
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_EQ(a_->Held(), 1);
  // The last release ends an open change.
  {
    Document other;
    other.Append(a_, 0, 1);
    other->InitChange(1, nullptr);
    EXPECT_EQ(a_->Held(), 3);
  }
  EXPECT_EQ(a_->Held(), 1);
}

TEST_F(EditedAudioEvents, AChangeThatCannotTakeItsSnapshotDoesNotOpen) {
  ModuleUnderTest::Revoke();
  const HRESULT hr = document_->InitChange(0, nullptr);
  ModuleUnderTest::Load();
  EXPECT_TRUE(FAILED(hr));
  EXPECT_NE(hr, E_FAIL);
  EXPECT_EQ(document_->CommitChange(), E_FAIL);
  Commit();
}

TEST_F(EditedAudioEvents, OnlyACommitFires) {
  Sink sink = UpdateSink("a");
  const DWORD cookie = Connect(sink);
  document_.Append(a_, 0, 10);
  document_->Insert(3, document_);
  EXPECT_EQ(document_->InitChange(1, Bstr(L"Edit")), S_OK);
  document_.Label(L"l", 1);
  document_.Marker(L"m", 1, 2);
  // A rollback leaves the document empty.
  EXPECT_EQ(document_->RollbackChange(), S_OK);
  EXPECT_EQ(document_.Segments() + document_.Labels() + document_.Markers(), "");
  EXPECT_EQ(a_->Held(), 0);
  EXPECT_THAT(log_, IsEmpty());
  Commit();
  EXPECT_THAT(log_, ElementsAre("a3"));
  Disconnect(cookie);
}

TEST_F(EditedAudioEvents, CallsSinksInTheOrderOfTheirSlots) {
  Sink a = UpdateSink("a");
  Sink b = UpdateSink("b");
  Sink c = UpdateSink("c");
  const DWORD cookie_a = Connect(a);
  const DWORD cookie_b = Connect(b);
  const DWORD cookie_c = Connect(c);
  Commit();
  Disconnect(cookie_b);
  Commit();
  // The free slot is taken first.
  const DWORD again = Connect(b);
  EXPECT_EQ(again, cookie_b);
  Commit();
  EXPECT_THAT(log_, ElementsAre("a3", "b3", "c3", "a3", "c3", "a3", "b3", "c3"));
  for (const DWORD cookie : {cookie_a, again, cookie_c}) Disconnect(cookie);
}

TEST_F(EditedAudioEvents, AFailingSinkLeavesItsErrorAndStopsNobody) {
  Sink a = UpdateSink("a");
  Sink b = UpdateSink("b");
  Sink c = UpdateSink("c");
  a.on_event = [](DISPPARAMS*, EXCEPINFO* exception) {
    exception->bstrDescription = SysAllocString(L"first");
    return DISP_E_EXCEPTION;
  };
  b.on_event = [](DISPPARAMS*, EXCEPINFO* exception) {
    // Filled in only when asked.
    exception->pfnDeferredFillIn = FillInLater;
    return DISP_E_EXCEPTION;
  };
  const DWORD cookies[] = {Connect(a), Connect(b), Connect(c)};
  Commit();
  EXPECT_THAT(log_, ElementsAre("a3", "b3", "c3"));
  EXPECT_EQ(CurrentErrorDescription(), L"second, deferred");
  // A failure without a description replaces the description of an earlier one.
  b.on_event = nullptr;
  c.on_event = [](DISPPARAMS*, EXCEPINFO*) { return E_NOTIMPL; };
  Commit();
  EXPECT_EQ(CurrentErrorDescription(), L"");
  for (const DWORD cookie : cookies) Disconnect(cookie);
}

TEST_F(EditedAudioEvents, SinksMayConnectAndDisconnectDuringAnEvent) {
  Sink a = UpdateSink("a");
  Sink b = UpdateSink("b");
  Sink c = UpdateSink("c");
  Sink late = UpdateSink("l");
  DWORD cookie_a = Connect(a);
  const DWORD cookie_b = Connect(b);
  const DWORD cookie_c = Connect(c);
  DWORD cookie_late = 0;
  a.on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    Disconnect(cookie_a);
    Disconnect(cookie_b);
    cookie_late = Connect(late);
    return S_OK;
  };
  Commit();
  // A disconnected sink is not called any more, a new one from the next event on.
  EXPECT_THAT(log_, ElementsAre("a3", "c3"));
  EXPECT_EQ(b.Held(), 0);
  log_.clear();
  Commit();
  EXPECT_THAT(log_, ElementsAre("l3", "c3"));
  Disconnect(cookie_late);
  Disconnect(cookie_c);
}

TEST_F(EditedAudioEvents, ASinkMayEditTheDocumentAndOpenTheNextChange) {
  Sink sink = UpdateSink("a");
  const DWORD cookie = Connect(sink);
  sink.on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    document_.Append(a_, 0, 5);
    return document_->InitChange(0, nullptr);
  };
  Commit();
  EXPECT_EQ(document_.Segments(), "A[0,5)");
  EXPECT_EQ(document_->InitChange(0, nullptr), E_FAIL);
  sink.on_event = nullptr;
  EXPECT_EQ(document_->CommitChange(), S_OK);
  Disconnect(cookie);
}

TEST_F(EditedAudioEvents, ASinkMaySpoilItsArgumentsWithoutHarm) {
  Sink first("u", DIID__IEAUndoEvents, &log_);
  Sink second("v", DIID__IEAUndoEvents, &log_);
  first.on_event = [](DISPPARAMS* params, EXCEPINFO*) {
    VariantClear(&params->rgvarg[0]);
    VariantClear(&params->rgvarg[1]);
    return S_OK;
  };
  std::wstring operation;
  second.on_event = [&](DISPPARAMS* params, EXCEPINFO*) {
    operation = V_BSTR(&params->rgvarg[1]);
    return S_OK;
  };
  Connect(first, DIID__IEAUndoEvents);
  Connect(second, DIID__IEAUndoEvents);
  const Bstr name(L"Paste");
  EXPECT_EQ(document_->InitChange(-1, name), S_OK);
  EXPECT_EQ(operation, L"Paste");
  EXPECT_EQ(name.str(), L"Paste");
  Disconnect(1, DIID__IEAUndoEvents);
  Disconnect(2, DIID__IEAUndoEvents);
}

TEST_F(EditedAudioEvents, ASinkMayReleaseTheDocumentThatCallsIt) {
  for (const IID* iid : {&DIID__IEAUpdateEvents, &DIID__IEAUndoEvents}) {
    auto doomed = Create<IEditedAudio>(CLSID_CEditedAudio);
    IEditedAudio* const raw = doomed.Get();
    doomed->AppendSegment(a_.Get(), 0, 10);
    Sink sink("d", *iid, &log_);
    sink.on_event = [&](DISPPARAMS*, EXCEPINFO*) {
      doomed.Reset();
      return S_OK;
    };
    {
      ComPtr<IConnectionPoint> point;
      As<IConnectionPointContainer>(doomed)->FindConnectionPoint(*iid, point.GetAddressOf());
      DWORD cookie = 0;
      EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
    }
    const bool undo = iid == &DIID__IEAUndoEvents;
    EXPECT_EQ(raw->InitChange(undo ? 1 : 0, nullptr), S_OK);
    if (!undo) {
      EXPECT_EQ(raw->CommitChange(), S_OK);
    }
    EXPECT_EQ(doomed.Get(), nullptr);
    EXPECT_EQ(sink.Held(), 0);
    EXPECT_EQ(a_->Held(), 0);
  }
}

}  // namespace
}  // namespace marlinda::testing
