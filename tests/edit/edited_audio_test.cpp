// The content of a document, its sources and its events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <olectl.h>

#include <atomic>
#include <limits>
#include <thread>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

HRESULT STDMETHODCALLTYPE FillInLater(EXCEPINFO* exception) {
  exception->bstrDescription = SysAllocString(L"second, deferred");
  return S_OK;
}

class EditedAudio : public ::testing::Test {
 protected:
  static float A(__int64 frame) { return RampSource::Sample('A', frame, 0); }
  static float B(__int64 frame) { return RampSource::Sample('B', frame, 0); }

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
  // Mono, so that a frame is one sample.
  const ComPtr<RampSource> a_ = RampSource::Make('A', 1, &log_);
  const ComPtr<RampSource> b_ = RampSource::Make('B', 1, &log_);
  Document document_;
};

TEST_F(EditedAudio, HasNoChannelsUntilTheFirstSourceBringsAFormat) {
  const Floats block(4, 0.5F);
  EXPECT_EQ(document_.reader->ReadAudio(0, block), S_FALSE);
  EXPECT_THAT(block.ToVector(), ElementsAre(0, 0, 0, 0));
  document_.Append(nullptr, 0, 10);
  EXPECT_EQ(document_.Format(), "1/0/16");
  document_.Append(a_, 0, 10);
  // Later sources are never asked.
  document_.Append(RampSource::Make('C', 2, &log_, 8000), 0, 10);
  EXPECT_EQ(document_.Format(), "44100/1/16");
  EXPECT_THAT(log_, ElementsAre("A.GetFormat"));
  // Either value being 0 is enough.
  EXPECT_EQ(document_->SetFormat(0, 6, 24), S_OK);
  EXPECT_EQ(document_->InsertSegment(0, b_.Get(), 0, 10), S_OK);
  EXPECT_EQ(document_.Format(), "44100/1/24");
}

TEST_F(EditedAudio, ReadsThroughItsSegmentsUpToASourceThatFails) {
  document_.Append(a_, 100, 104);
  document_.Append(nullptr, 0, 2);
  document_.Append(b_, 7, 9);
  document_.Append(a_, 10, 12);
  log_.clear();
  // Each source gets an array of its piece only, which looks new.
  b_->on_read = [&](SAFEARRAY* array) {
    float& first = static_cast<float*>(array->pvData)[0];
    EXPECT_EQ(std::exchange(first, 99.0F), 0.0F);
  };
  EXPECT_THAT(document_.Read(1, 10),
              ElementsAre(A(101), A(102), A(103), 0, 0, B(7), B(8), A(10), A(11), 0));
  EXPECT_THAT(log_, ElementsAre("A.ReadAudio(101, 3)", "B.ReadAudio(7, 2)", "A.ReadAudio(10, 2)"));
  constexpr __int64 kMax = std::numeric_limits<__int64>::max();
  EXPECT_THAT(document_.Read(kMax, 2), ElementsAre(0, 0));
  // The pieces start at the front of the array also when the read begins before the document; the
  // rest of the array stays unchanged.
  EXPECT_THAT(document_.Read(-2, 4), ElementsAre(A(100), A(101), -1, -1));
  EXPECT_THAT(document_.Read(-kMax, 2), ElementsAre(-1, -1));
  b_->read_result = E_ACCESSDENIED;
  const Floats block(8, -1.0F);
  EXPECT_EQ(document_.reader->ReadAudio(3, block), E_ACCESSDENIED);
  EXPECT_THAT(block.ToVector(), ElementsAre(A(103), 0, 0, -1, -1, -1, -1, 0));
  // Another success code is no failure.
  b_->read_result = S_FALSE;
  EXPECT_THAT(document_.Read(6, 3), ElementsAre(B(7), B(8), A(10)));
  // Three channels: two frames, and an element that belongs to none.
  document_->SetFormat(44100, 3, 16);
  EXPECT_EQ(document_.Read(0, 7)[6], -1);
  document_->SetFormat(44100, -32768, 16);
  EXPECT_EQ(document_.Read(0, 8).size(), 8u);
}

TEST_F(EditedAudio, NothingThatASourceOrABackwardSegmentDoesReachesOutsideTheArray) {
  document_.Append(a_, 0, 100);
  document_.Append(b_, 50, 0);
  document_.Append(a_, 200, 300);
  log_.clear();
  // 100 frames of the first piece and 70 of the second go into room for 120.
  const std::vector<float> samples = document_.Read(0, 120);
  EXPECT_THAT(log_, ElementsAre("A.ReadAudio(0, 100)", "A.ReadAudio(200, 70)"));
  EXPECT_TRUE(samples[99] == A(99) && samples[100] == A(200) && samples[119] == A(219));
  document_->Clear();
  document_.Append(a_, 0, 2);
  document_.Append(b_, 0, 2);
  a_->on_read = [&](SAFEARRAY* array) {
    SAFEARRAYBOUND larger = {1 << 20, 0};
    EXPECT_TRUE(FAILED(SafeArrayRedim(array, &larger)));
    EXPECT_TRUE(FAILED(SafeArrayDestroy(array)));
    document_->Clear();
  };
  EXPECT_THAT(document_.Read(0, 4), ElementsAre(A(0), A(1), B(0), B(1)));
  EXPECT_EQ(document_.Length(), 0);
  EXPECT_EQ(b_->Held(), 0);
}

// Hosts must not do this; a read then gives the old or the new content.
TEST_F(EditedAudio, EditsDuringReadsOnOtherThreadsCorruptNothing) {
  const auto quiet = RampSource::Make('Q', 1);
  document_.Append(quiet, 0, 1);
  std::atomic<bool> stop = false;
  const auto read = [&] {
    const Floats block(500);
    while (!stop) document_.reader->ReadAudio(0, block);
  };
  std::thread one(read);
  std::thread two(read);
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 300; ++i) document_->InsertSegment(i / 2, quiet.Get(), 0, 4);
    document_->Delete(20, 100);
    if (round % 5 == 0) document_->Clear();
  }
  stop = true;
  one.join();
  two.join();
  document_->Clear();
  EXPECT_EQ(quiet->Held(), 0);
}

TEST_F(EditedAudio, OpensAndClosesEverySegmentsSourceInOrderAndMayContainItself) {
  document_.Append(a_, 0, 4);
  document_.Append(nullptr, 0, 1);
  document_.Append(b_, 0, 1);
  log_.clear();
  EXPECT_EQ(document_.reader->OpenDevice(), S_OK);
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  b_->open_result = E_ACCESSDENIED;
  document_.Append(a_, 5, 5);
  EXPECT_EQ(document_.reader->OpenDevice(), E_ACCESSDENIED);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "B.OpenDevice", "A.CloseDevice", "B.CloseDevice",
                                "A.OpenDevice", "B.OpenDevice"));
  document_->Delete(4, 6);
  document_->AppendSegment(document_.reader.Get(), 0, 3);
  EXPECT_THAT(document_.Read(2, 5), ElementsAre(A(2), A(3), A(0), A(1), A(2)));
  // These frames are made of themselves.
  document_->InsertSegment(0, document_.reader.Get(), 0, 2);
  EXPECT_EQ(document_.reader->ReadAudio(0, Floats(2)), E_FAIL);
  EXPECT_EQ(document_.reader->OpenDevice(), E_FAIL);
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  EXPECT_EQ(document_->Clear(), S_OK);
}

// An object of a host that contains a document and may hide its labels.
class Wrapper final : public TestObject<IUnknown> {
 public:
  Wrapper() {
    Check(CoCreateInstance(CLSID_CEditedAudio, this, CLSCTX_ALL, IID_IUnknown,
                           reinterpret_cast<void**>(inner_.GetAddressOf())));
  }
  bool hides_labels = false;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (hides_labels && IsEqualIID(iid, IID_ILabelSupport)) return E_NOINTERFACE;
    return IsEqualIID(iid, IID_IUnknown) ? TestObject::QueryInterface(iid, object)
                                         : inner_->QueryInterface(iid, object);
  }

 private:
  ComPtr<IUnknown> inner_;
};

TEST_F(EditedAudio, WorksWithAnotherMakersDocumentThroughItsInterfaces) {
  const auto wrapper = MakeObject<Wrapper>();
  const Document foreign(As<IEditedAudio>(wrapper));
  foreign.Append(b_, 10, 20);
  foreign.AddLabel("y", 1);
  foreign.AddMarker("m", 0, 9);
  document_.Append(a_, 0, 4);
  document_.AddLabel("x", 3);
  EXPECT_EQ(document_->Insert(2, foreign), S_OK);
  EXPECT_EQ(document_.Text(), "A[0,2) B[10,20) A[2,4) x@13 y@3 m[2,11)");
  EXPECT_EQ(document_->Copy(foreign, 3, 13), S_OK);
  EXPECT_EQ(foreign.Text(), "B[11,20) A[2,3) y@0 m[0,8)");
  // Without labels, the call fails after the segments were transferred.
  wrapper->hides_labels = true;
  EXPECT_EQ(document_->CopyAll(foreign), E_FAIL);
  EXPECT_EQ(foreign.Text(), "A[0,2) B[10,20) A[2,4)");
  // Names pass the code page of the system both ways, not that of the thread.
  EXPECT_EQ(document_.labels->SetLabel(0, 0, Bstr(L"caf\u00E9")), S_OK);
  const LCID usual = GetThreadLocale();
  ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT)));
  EXPECT_NE(document_.Text().find("caf\xE9@0"), std::string::npos);
  SetThreadLocale(usual);
}

TEST_F(EditedAudio, CallsTheSinksInTheOrderOfTheirSlots) {
  const auto a = MakeSink("a");
  const auto b = MakeSink("b");
  const auto c = MakeSink("c");
  EXPECT_EQ(Commit(), (CallLog{"a3", "b3", "c3"}));
  b->Disconnect(document_);
  EXPECT_EQ(b->Held(), 0);
  EXPECT_EQ(Commit(), (CallLog{"a3", "c3"}));
  const auto point = a->Point(document_);
  for (const DWORD wrong : {0UL, b->cookie, c->cookie + 1}) {
    EXPECT_EQ(point->Unadvise(wrong), CONNECT_E_NOCONNECTION);
  }
  // A sink with nothing but IDispatch receives events too. It gets the free slot.
  const auto plain = MakeSink("p", IID_IDispatch);
  EXPECT_EQ(point->Advise(plain.Get(), &plain->cookie), S_OK);
  EXPECT_EQ(plain->cookie, b->cookie);
  EXPECT_EQ(Commit(), (CallLog{"a3", "p3", "c3"}));

  DWORD cookie = 7;
  EXPECT_EQ(Sink("", &log_, IID_IPropertyNotifySink).Point(document_)->Advise(plain.Get(), &cookie),
            CONNECT_E_CANNOTCONNECT);
  EXPECT_EQ(cookie, 0u);
}

TEST_F(EditedAudio, AFailingSinkLeavesItsErrorAndStopsNobody) {
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

TEST_F(EditedAudio, ASinkMayConnectDisconnectAndEditDuringAnEvent) {
  const auto a = MakeSink("a");
  const auto b = MakeSink("b");
  const auto c = MakeSink("c");
  ComPtr<Sink> late;
  a->on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    a->Disconnect(document_);
    b->Disconnect(document_);
    late = MakeSink("l");
    document_.Append(nullptr, 0, 5);
    return document_->InitChange(0, nullptr);
  };
  // A disconnected sink is not called any more, a new one from the next event on.
  EXPECT_EQ(Commit(), (CallLog{"a3", "c3"}));
  EXPECT_EQ(b->Held(), 0);
  EXPECT_EQ(document_.Text(), "-[0,5)");
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_EQ(log_, (CallLog{"a3", "c3", "l3", "c3"}));
}

TEST_F(EditedAudio, OffersTheDocumentForUndoBeforeAnythingChanges) {
  document_.Append(a_, 0, 10);
  log_.clear();
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

TEST_F(EditedAudio, OnlyACommitFiresAndARollbackEmptiesTheDocument) {
  const auto sink = MakeSink("a");
  document_.Append(a_, 0, 10);
  EXPECT_EQ(document_->InitChange(1, nullptr), S_OK);
  EXPECT_EQ(a_->Held(), 2) << "no snapshot";
  document_.AddLabel("l", 1);
  document_.AddMarker("m", 1, 2);
  log_.clear();
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

TEST_F(EditedAudio, ASinkMayReleaseTheDocumentThatCallsIt) {
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
