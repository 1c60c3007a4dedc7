#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>
#include <thread>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

constexpr __int64 kMax = std::numeric_limits<__int64>::max();
constexpr __int64 kMin = std::numeric_limits<__int64>::min();

class EditedAudio : public ::testing::Test {
 protected:
  // Mono, so that a frame is one sample.
  const ComPtr<RampSource> a_ = RampSource::Make('A', 1, &log_);
  const ComPtr<RampSource> b_ = RampSource::Make('B', 1, &log_);
  CallLog log_;
  Document document_;

  static float A(__int64 frame) { return RampSource::Sample('A', frame, 0); }
  static float B(__int64 frame) { return RampSource::Sample('B', frame, 0); }
};

TEST_F(EditedAudio, HasNoChannelsUntilTheFirstSourceBringsAFormat) {
  const Floats block(4, 0.5F);
  EXPECT_EQ(document_.reader->ReadAudio(0, block), S_FALSE);
  EXPECT_THAT(block.ToVector(), ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(document_->AppendSegment(nullptr, 0, 10), S_OK);
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

TEST_F(EditedAudio, ReadsThroughItsSegmentsOnePieceAfterTheOther) {
  document_.Append(a_, 100, 104);
  document_.Append(nullptr, 0, 2);
  document_.Append(b_, 7, 9);
  log_.clear();
  // Each source gets an array of its piece only, which looks new.
  b_->on_read = [&](SAFEARRAY* array) {
    EXPECT_EQ(static_cast<const float*>(array->pvData)[0], 0.0F);
  };
  EXPECT_THAT(document_.Read(1, 8), ElementsAre(A(101), A(102), A(103), 0, 0, B(7), B(8), 0));
  EXPECT_THAT(log_, ElementsAre("A.ReadAudio(101, 3)", "B.ReadAudio(7, 2)"));
  EXPECT_THAT(document_.Read(8, 2), ElementsAre(0, 0));
  EXPECT_THAT(document_.Read(kMax, 2), ElementsAre(0, 0));
  // The pieces start at the front of the array also when the read begins before the document; the
  // rest of the array stays unchanged.
  EXPECT_THAT(document_.Read(-2, 4), ElementsAre(A(100), A(101), -1, -1));
  EXPECT_THAT(document_.Read(kMin, 2), ElementsAre(-1, -1));
  // Three channels: two frames, and an element that belongs to none.
  document_->SetFormat(44100, 3, 16);
  EXPECT_EQ(document_.Read(0, 7)[6], -1);
  EXPECT_EQ(document_.Read(9, 7)[6], 0);
  for (const SHORT channels : {-1, -32768}) {
    document_->SetFormat(44100, channels, 16);
    EXPECT_EQ(document_.Read(0, 8).size(), 8u);
  }
}

TEST_F(EditedAudio, ASourceThatFailsEndsTheReadWithItsOwnCode) {
  document_.Append(a_, 0, 2);
  document_.Append(b_, 0, 2);
  document_.Append(a_, 10, 12);
  b_->read_result = static_cast<HRESULT>(0x80070026);
  b_->on_read = [](SAFEARRAY* array) { static_cast<float*>(array->pvData)[0] = 99.0F; };
  const Floats block(7, -1.0F);
  EXPECT_EQ(document_.reader->ReadAudio(0, block), static_cast<HRESULT>(0x80070026));
  EXPECT_THAT(block.ToVector(), ElementsAre(A(0), A(1), -1, -1, -1, -1, 0));
  EXPECT_EQ(log_.back(), "B.ReadAudio(0, 2)");
  // Another success code is no failure.
  b_->read_result = S_FALSE;
  EXPECT_THAT(document_.Read(0, 6), ElementsAre(A(0), A(1), B(0), B(1), A(10), A(11)));
}

TEST_F(EditedAudio, ASourceMayEditTheDocumentThatReadsItButNotItsArray) {
  document_.Append(a_, 0, 4);
  document_.Append(b_, 0, 4);
  a_->on_read = [&](SAFEARRAY* array) {
    SAFEARRAYBOUND larger = {1 << 20, 0};
    EXPECT_TRUE(FAILED(SafeArrayRedim(array, &larger)));
    EXPECT_TRUE(FAILED(SafeArrayDestroy(array)));
    document_->Clear();
  };
  EXPECT_THAT(document_.Read(0, 8), ElementsAre(A(0), A(1), A(2), A(3), B(0), B(1), B(2), B(3)));
  EXPECT_EQ(document_.Length(), 0);
  EXPECT_EQ(b_->Held(), 0);
}

TEST_F(EditedAudio, BackwardSegmentsShortenItAndNeverWriteOutsideTheArray) {
  document_.Append(a_, 0, 100);
  document_.Append(b_, 50, 0);
  document_.Append(a_, 200, 300);
  EXPECT_EQ(document_.Length(), 150);
  log_.clear();
  // 100 frames of the first piece and 70 of the second go into room for 120.
  const std::vector<float> samples = document_.Read(0, 120);
  EXPECT_THAT(log_, ElementsAre("A.ReadAudio(0, 100)", "A.ReadAudio(200, 70)"));
  EXPECT_EQ(samples[99], A(99));
  EXPECT_EQ(samples[100], A(200));
  EXPECT_EQ(samples[119], A(219));
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

TEST_F(EditedAudio, OpensAndClosesEverySegmentsSourceInOrder) {
  document_.Append(a_, 0, 1);
  document_.Append(nullptr, 0, 1);
  document_.Append(b_, 0, 1);
  document_.Append(a_, 5, 5);
  log_.clear();
  EXPECT_EQ(document_.reader->OpenDevice(), S_OK);
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  b_->open_result = E_ACCESSDENIED;
  EXPECT_EQ(document_.reader->OpenDevice(), E_ACCESSDENIED);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "B.OpenDevice", "A.OpenDevice", "A.CloseDevice",
                                "B.CloseDevice", "A.CloseDevice", "A.OpenDevice", "B.OpenDevice"));
}

TEST_F(EditedAudio, MayContainItselfAndStillAnswersEveryCall) {
  document_.Append(a_, 0, 4);
  document_->AppendSegment(document_.reader.Get(), 0, 3);
  EXPECT_THAT(document_.Read(2, 5), ElementsAre(A(2), A(3), A(0), A(1), A(2)));
  // These frames are made of themselves.
  document_->InsertSegment(0, document_.reader.Get(), 0, 2);
  EXPECT_EQ(document_.reader->ReadAudio(0, Floats(2)), E_FAIL);
  EXPECT_EQ(document_.reader->OpenDevice(), E_FAIL);
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  EXPECT_EQ(document_->Clear(), S_OK);
}

// Every call of this source comes back to the document, in a call that needs its lock.
class AskingSource final : public RampSource {
 public:
  AskingSource() : RampSource('A', 1, nullptr, 44100) {}

  IEditedAudio* document = nullptr;
  int asked = 0;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return Note(""), RampSource::QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return Note(""), RampSource::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return Note(""), RampSource::Release(); }

 private:
  void Note(const std::string&) override {
    if (document == nullptr) return;
    EXPECT_EQ(document->SetFormat(44100, 1, 16), S_OK);
    ++asked;
  }
};

// Where the document holds its lock over such a call, this hangs.
TEST_F(EditedAudio, CallsItsSourcesWithoutItsLock) {
  const auto source = MakeObject<AskingSource>();
  source->document = document_;
  const std::function<void()> calls[] = {
      [&] { document_->AppendSegment(source.Get(), 0, 2000); },
      [&] { document_->InsertSegment(50, source.Get(), 0, 100); },
      [&] { document_->Insert(25, document_); },
      [&] { document_->CopyAll(Document()); },
      [&] { document_->Copy(Document(), 10, 90); },
      [&] { document_->Delete(1, 2); },
      [&] { document_->Delete(1, 60); },
      [&] { document_->Delete(60, 40); },
      [&] { document_.Read(0, 200); },
      [&] { document_.reader->OpenDevice(); },
      [&] { document_.reader->CloseDevice(); },
      [&] { document_->ReadWaveplot(0, 100, Floats(20)); },
      [&] { document_->ReadWaveplot(0, 1000, Floats(2)); },
      [&] { document_->InitChange(0, nullptr); },
      [&] { document_->CommitChange(); },
      [&] { document_->Clear(); }};
  for (const auto& call : calls) {
    source->asked = 0;
    call();
    EXPECT_GT(source->asked, 0) << "call " << &call - calls;
  }
  source->document = nullptr;
}

// Names pass the code page of the system both ways, not that of the thread.
TEST_F(EditedAudio, ReturnsNamesUnchangedInEveryLocaleOfTheThread) {
  EXPECT_EQ(document_.labels->AddLabel(0, Bstr(L"caf\u00E9")), S_OK);
  EXPECT_EQ(document_.markers->AddSectionMarker(0, 1, Bstr(L"\u00E9t\u00E9")), S_OK);
  const LCID usual = GetThreadLocale();
  ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT)));
  EXPECT_EQ(document_.Text(), "caf\xE9@0 \xE9t\xE9[0,1)");
  SetThreadLocale(usual);
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
  EXPECT_EQ(document_->Insert(0, foreign), E_FAIL);
  EXPECT_EQ(document_.Length(), 28);
}

}  // namespace
}  // namespace marlinda::testing
