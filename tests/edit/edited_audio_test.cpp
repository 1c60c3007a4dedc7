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

  static std::string Format(const Document& document) {
    LONG rate = -1;
    SHORT channels = -1;
    SHORT bits = -1;
    EXPECT_EQ(document.reader->GetFormat(&rate, &channels), S_OK);
    EXPECT_EQ(document->GetBitsPerSample(&bits), S_OK);
    return std::to_string(rate) + "/" + std::to_string(channels) + "/" + std::to_string(bits);
  }
};

TEST_F(EditedAudio, HasNoChannelsUntilTheFirstSourceBringsAFormat) {
  EXPECT_EQ(Format(document_), "1/0/16");
  const Floats block(4, 0.5F);
  EXPECT_EQ(document_.reader->ReadAudio(0, block), S_FALSE);
  EXPECT_THAT(block.ToVector(), ElementsAre(0, 0, 0, 0));

  EXPECT_EQ(document_->AppendSegment(nullptr, 0, 10), S_OK);
  EXPECT_EQ(Format(document_), "1/0/16");
  document_.Append(a_, 0, 10);
  EXPECT_EQ(Format(document_), "44100/1/16");
  // Later sources are never asked.
  document_.Append(RampSource::Make('C', 2, &log_, 8000), 0, 10);
  EXPECT_EQ(Format(document_), "44100/1/16");
  EXPECT_THAT(log_, ElementsAre("A.GetFormat"));
  // Either value being 0 is enough.
  EXPECT_EQ(document_->SetFormat(0, 6, 24), S_OK);
  EXPECT_EQ(document_->InsertSegment(0, b_.Get(), 0, 10), S_OK);
  EXPECT_EQ(Format(document_), "44100/1/24");
}

TEST_F(EditedAudio, ReadsThroughItsSegmentsOnePieceAfterTheOther) {
  document_.Append(a_, 100, 104);
  document_->AppendSegment(nullptr, 0, 2);
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
}

TEST_F(EditedAudio, ASourceThatFailsEndsTheReadWithItsOwnCode) {
  document_.Append(a_, 0, 2);
  document_.Append(b_, 0, 2);
  document_.Append(a_, 10, 12);
  b_->read_result = static_cast<HRESULT>(0x80070026);
  b_->on_read = [](SAFEARRAY* array) { static_cast<float*>(array->pvData)[0] = 99.0F; };
  log_.clear();
  const Floats block(7, -1.0F);
  EXPECT_EQ(document_.reader->ReadAudio(0, block), static_cast<HRESULT>(0x80070026));
  EXPECT_THAT(block.ToVector(), ElementsAre(A(0), A(1), -1, -1, -1, -1, 0));
  EXPECT_EQ(log_.size(), 2u);
  // Another success code is no failure.
  b_->read_result = S_FALSE;
  EXPECT_THAT(document_.Read(0, 6), ElementsAre(A(0), A(1), B(0), B(1), A(10), A(11)));
}

TEST_F(EditedAudio, ASourceCannotResizeOrDestroyItsArray) {
  document_.Append(a_, 0, 4);
  document_.Append(b_, 0, 4);
  HRESULT redim = S_OK;
  HRESULT destroyed = S_OK;
  a_->on_read = [&](SAFEARRAY* array) {
    SAFEARRAYBOUND larger = {1 << 20, 0};
    redim = SafeArrayRedim(array, &larger);
    destroyed = SafeArrayDestroy(array);
  };
  EXPECT_THAT(document_.Read(0, 8), ElementsAre(A(0), A(1), A(2), A(3), B(0), B(1), B(2), B(3)));
  EXPECT_TRUE(FAILED(redim));
  EXPECT_TRUE(FAILED(destroyed));
}

TEST_F(EditedAudio, ASourceMayEditTheDocumentThatReadsIt) {
  document_.Append(a_, 0, 4);
  document_.Append(b_, 0, 4);
  a_->on_read = [&](SAFEARRAY*) { document_->Clear(); };
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

TEST_F(EditedAudio, ReadsOddFormatsAndArraysWithoutACrash) {
  document_.Append(a_, 0, 10);
  for (const SHORT channels : {-1, -32768}) {
    document_->SetFormat(44100, channels, 16);
    const Floats block(8, 0.5F);
    EXPECT_EQ(document_.reader->ReadAudio(0, block), S_OK);
    EXPECT_EQ(document_.reader->ReadAudio(1000, block), S_OK);
  }
  document_->SetFormat(44100, 3, 16);
  // 2 frames of 3 channels and one element that belongs to none.
  EXPECT_EQ(document_.Read(0, 7)[6], -1);
  EXPECT_EQ(document_.Read(9, 7)[6], 0);
  EXPECT_TRUE(document_.Read(0, 0).empty());
  EXPECT_EQ(document_.reader->ReadAudio(0, ForeignArray(VT_I4)), E_INVALIDARG);
}

TEST_F(EditedAudio, OpensAndClosesEverySegmentsSourceInOrder) {
  document_.Append(a_, 0, 1);
  document_->AppendSegment(nullptr, 0, 1);
  document_.Append(b_, 0, 1);
  document_.Append(a_, 5, 5);
  log_.clear();
  EXPECT_EQ(document_.reader->OpenDevice(), S_OK);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "B.OpenDevice", "A.OpenDevice"));
  log_.clear();
  b_->open_result = E_ACCESSDENIED;
  EXPECT_EQ(document_.reader->OpenDevice(), E_ACCESSDENIED);
  EXPECT_THAT(log_, ElementsAre("A.OpenDevice", "B.OpenDevice"));
  log_.clear();
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  EXPECT_THAT(log_, ElementsAre("A.CloseDevice", "B.CloseDevice", "A.CloseDevice"));
}

TEST_F(EditedAudio, MayContainItselfAndStillAnswersEveryCall) {
  document_.Append(a_, 0, 4);
  document_->AppendSegment(document_.reader.Get(), 0, 3);
  EXPECT_THAT(document_.Read(2, 5), ElementsAre(A(2), A(3), A(0), A(1), A(2)));
  // These frames are made of themselves.
  document_->InsertSegment(0, document_.reader.Get(), 0, 2);
  const Floats block(2);
  EXPECT_EQ(document_.reader->ReadAudio(0, block), E_FAIL);
  EXPECT_EQ(document_.reader->OpenDevice(), E_FAIL);
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  EXPECT_EQ(document_->Clear(), S_OK);
}

TEST_F(EditedAudio, DeletesARangeByJoiningTheRest) {
  document_.Append(a_, 0, 100);
  document_.Append(b_, 0, 100);
  for (const __int64 position : {0, 49, 50, 99, 100, 199, 200}) document_.Label(L"l", position);
  document_.Marker(L"spans", 40, 120);
  document_.Marker(L"inside", 60, 70);
  document_.Marker(L"ends", 10, 55);
  document_.Marker(L"starts", 90, 150);
  // Needs no other object.
  ModuleUnderTest::Revoke();
  const HRESULT hr = document_->Delete(50, 100);
  ModuleUnderTest::Load();
  EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,50) B[0,100)");
  // The label at the very end of the document lies in neither part that is kept.
  EXPECT_EQ(document_.Labels(), "l@0 l@49 l@50 l@149");
  EXPECT_EQ(document_.Markers(), "spans[40,50) ends[10,50) spans[50,70) starts[50,100)");
  EXPECT_EQ(document_->Delete(20, 10), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,20) A[10,50) B[0,100)");
  EXPECT_EQ(document_->Delete(30, kMax), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,20) A[10,20)");
  // A document without a format takes that of the sources that it keeps.
  document_->SetFormat(0, 0, 24);
  EXPECT_EQ(document_->Delete(5, 10), S_OK);
  EXPECT_EQ(Format(document_), "44100/1/24");
  EXPECT_EQ(document_.Segments(), "A[0,5) A[10,20) A[10,20)");
  EXPECT_EQ(document_->Delete(kMin, kMax), S_OK);
  EXPECT_EQ(document_.Segments(), "");
}

TEST_F(EditedAudio, CopiesReplaceContentAndFormat) {
  document_.Append(a_, 0, 10);
  document_->SetFormat(8000, 1, 24);
  Document copy;
  copy.Append(b_, 50, 60);
  copy.Label(L"old", 1);
  EXPECT_EQ(document_->Copy(copy, 5, 5), S_OK);
  EXPECT_EQ(copy.Segments() + copy.Labels(), "");
  EXPECT_EQ(Format(copy), "8000/1/24");
  // Without a format, the copy asks the sources.
  document_->SetFormat(0, 0, 8);
  EXPECT_EQ(document_->CopyAll(copy), S_OK);
  EXPECT_EQ(Format(copy), "44100/1/8");
}

TEST_F(EditedAudio, IteratesWithoutReferencesAndEndsForGood) {
  IAudioReader* lent = a_.Get();
  __int64 begin = 11;
  __int64 end = 12;
  LONG valid = 5;
  EXPECT_EQ(document_->GetNextSegment(&lent, &begin, &end, &valid), S_OK);
  EXPECT_EQ(valid, 0);
  EXPECT_EQ(document_->GetFirstSegment(&lent, &begin, &end, &valid), S_OK);
  EXPECT_EQ(valid, 0);
  EXPECT_EQ(lent, a_.Get());
  EXPECT_EQ(begin, 11);
  EXPECT_EQ(end, 12);

  document_.Append(b_, 3, 4);
  EXPECT_EQ(b_->Held(), 1);
  EXPECT_EQ(document_->GetFirstSegment(&lent, &begin, &end, &valid), S_OK);
  EXPECT_EQ(valid, 1);
  EXPECT_EQ(lent, b_.Get());
  EXPECT_EQ(b_->Held(), 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(document_->GetNextSegment(&lent, &begin, &end, &valid), S_OK);
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(begin, 3);
  }
  // A cleared document has nothing left to point at.
  document_->GetFirstSegment(&lent, &begin, &end, &valid);
  document_->Clear();
  document_.Append(a_, 0, 1);
  EXPECT_EQ(document_->GetNextSegment(&lent, &begin, &end, &valid), S_OK);
  EXPECT_EQ(valid, 0);
}

TEST_F(EditedAudio, HoldsOneReferenceForEachSegment) {
  {
    Document copy;
    for (int i = 0; i < 500; ++i) document_.Append(a_, i, i + 2);
    EXPECT_EQ(a_->Held(), 500);
    document_->InsertSegment(1, b_.Get(), 0, 1);
    EXPECT_EQ(a_->Held(), 501);
    document_->CopyAll(copy);
    EXPECT_EQ(a_->Held(), 1002);
    document_.Read(0, 1000);
    document_.reader->OpenDevice();
    EXPECT_EQ(a_->Held(), 1002);
    document_->Delete(10, 990);
    EXPECT_EQ(a_->Held(), 501 + 12);
    document_->Clear();
    EXPECT_EQ(b_->Held(), 1);
  }
  EXPECT_EQ(a_->Held(), 0);
  EXPECT_EQ(b_->Held(), 0);
}

// A source of which every method comes back to the document, in a call that needs its lock.
class AskingSource final : public RampSource {
 public:
  AskingSource() : RampSource('A', 1, nullptr, 44100) {}

  IEditedAudio* document = nullptr;
  int asked = 0;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    Ask();
    return RampSource::QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override {
    Ask();
    return RampSource::AddRef();
  }
  STDMETHODIMP_(ULONG) Release() override {
    Ask();
    return RampSource::Release();
  }
  STDMETHODIMP ReadAudio(__int64 position, SAFEARRAY* samples) override {
    Ask();
    return RampSource::ReadAudio(position, samples);
  }
  STDMETHODIMP GetFormat(LONG* samples_per_sec, SHORT* channels) override {
    Ask();
    return RampSource::GetFormat(samples_per_sec, channels);
  }
  STDMETHODIMP OpenDevice() override {
    Ask();
    return S_OK;
  }
  STDMETHODIMP CloseDevice() override {
    Ask();
    return S_OK;
  }

 private:
  void Ask() {
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
  EXPECT_EQ(source->Held(), 0);
  source->document = nullptr;
}

TEST_F(EditedAudio, FindsLabelsAndMarkersByTheOrderInWhichTheyWereAdded) {
  document_.Label(L"late", 500);
  document_.Label(L"early", 100);
  EXPECT_EQ(document_.labels->AddLabel(100, nullptr), S_OK);
  EXPECT_EQ(document_.Labels(), "late@500 early@100 @100");
  EXPECT_EQ(document_.labels->SetLabel(0, -7, Bstr(L"moved")), S_OK);
  EXPECT_EQ(document_.labels->RemoveLabel(1), S_OK);
  EXPECT_EQ(document_.Labels(), "moved@-7 @100");
  document_.Marker(L"late", 500, 600);
  document_.Marker(L"other", 7, 8);
  document_.Marker(L"backward", 100, 50);
  EXPECT_EQ(document_.markers->SetSectionMarker(0, -7, 7, Bstr(L"moved")), S_OK);
  EXPECT_EQ(document_.markers->RemoveSectionMarker(1), S_OK);
  EXPECT_EQ(document_.Markers(), "moved[-7,7) backward[100,50)");
  // An append moves neither.
  document_.Append(a_, 0, 1000);
  for (const LONG index : {-1L, 2L, 2147483647L, -2147483647L}) {
    __int64 position = 0;
    Bstr name;
    EXPECT_EQ(document_.labels->GetLabel(index, &position, name.Receive()), E_INVALIDARG);
    EXPECT_EQ(document_.labels->SetLabel(index, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(document_.labels->RemoveLabel(index), E_INVALIDARG);
    EXPECT_EQ(document_.markers->GetSectionMarker(index, &position, &position, name.Receive()),
              E_INVALIDARG);
    EXPECT_EQ(document_.markers->SetSectionMarker(index, 0, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(document_.markers->RemoveSectionMarker(index), E_INVALIDARG);
  }
  EXPECT_EQ(document_.Labels() + document_.Markers(), "moved@-7 @100moved[-7,7) backward[100,50)");
  EXPECT_EQ(document_.labels->RemoveAllLabels(), S_OK);
  EXPECT_EQ(document_.markers->RemoveAllSectionMarkers(), S_OK);
  EXPECT_EQ(document_.Labels() + document_.Markers(), "");
}

// Names pass the code page of the system both ways, not that of the thread.
TEST_F(EditedAudio, ReturnsNamesUnchangedInEveryLocaleOfTheThread) {
  document_.Label(L"caf\u00E9", 0);
  document_.Marker(L"\u00E9t\u00E9", 0, 1);
  const LCID usual = GetThreadLocale();
  ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT)));
  __int64 position = 0;
  Bstr label;
  Bstr marker;
  EXPECT_EQ(document_.labels->GetLabel(0, &position, label.Receive()), S_OK);
  EXPECT_EQ(document_.markers->GetSectionMarker(0, &position, &position, marker.Receive()), S_OK);
  SetThreadLocale(usual);
  EXPECT_EQ(label.str(), L"caf\u00E9");
  EXPECT_EQ(marker.str(), L"\u00E9t\u00E9");
}

// Another maker's document: it returns the same segment several times, notes the calls of a copy
// into it, and has neither labels nor markers.
class ForeignDocument final : public TestObject<IEditedAudio> {
 public:
  ForeignDocument(CallLog* log, IAudioReader* source, int segments)
      : log_(log), source_(source), segments_(segments) {}

  STDMETHODIMP Clear() override { return Note("Clear"); }
  STDMETHODIMP SetFormat(LONG rate, SHORT channels, SHORT bits) override {
    return Note("SetFormat(" + std::to_string(rate) + ", " + std::to_string(channels) + ", " +
                std::to_string(bits) + ")");
  }
  STDMETHODIMP AppendSegment(IAudioReader* source, __int64 begin, __int64 end) override {
    return Note("AppendSegment(" + std::string(source == nullptr ? "null" : "source") + ", " +
                std::to_string(begin) + ", " + std::to_string(end) + ")");
  }
  STDMETHODIMP GetFirstSegment(IAudioReader** source, __int64* begin, __int64* end,
                               LONG* valid) override {
    next_ = 0;
    return GetNextSegment(source, begin, end, valid);
  }
  STDMETHODIMP GetNextSegment(IAudioReader** source, __int64* begin, __int64* end,
                              LONG* valid) override {
    *valid = next_++ < segments_ ? -1 : 0;
    if (*valid == 0) return S_OK;
    *source = source_;
    *begin = 10;
    *end = 20;
    return S_OK;
  }

  STDMETHODIMP ReadWaveplot(__int64, __int64, SAFEARRAY*) override { return E_NOTIMPL; }
  STDMETHODIMP Insert(__int64, IEditedAudio*) override { return E_NOTIMPL; }
  STDMETHODIMP Copy(IEditedAudio*, __int64, __int64) override { return E_NOTIMPL; }
  STDMETHODIMP CopyAll(IEditedAudio*) override { return E_NOTIMPL; }
  STDMETHODIMP InsertSegment(__int64, IAudioReader*, __int64, __int64) override {
    return E_NOTIMPL;
  }
  STDMETHODIMP Delete(__int64, __int64) override { return E_NOTIMPL; }
  STDMETHODIMP InitChange(LONG, BSTR) override { return E_NOTIMPL; }
  STDMETHODIMP CommitChange() override { return E_NOTIMPL; }
  STDMETHODIMP RollbackChange() override { return E_NOTIMPL; }
  STDMETHODIMP Play(__int64, __int64, ULONG, VARIANT_BOOL) override { return E_NOTIMPL; }
  STDMETHODIMP StopPlay() override { return E_NOTIMPL; }
  STDMETHODIMP GetPlayStatus(VARIANT_BOOL*, __int64*) override { return E_NOTIMPL; }
  STDMETHODIMP GetOutputLevel(SHORT, float*) override { return E_NOTIMPL; }
  STDMETHODIMP SetPlaybackDevice(LONG) override { return E_NOTIMPL; }
  STDMETHODIMP GetBitsPerSample(SHORT*) override { return E_NOTIMPL; }
  STDMETHODIMP ModifyPlaySection(__int64, __int64) override { return E_NOTIMPL; }

 private:
  HRESULT Note(const std::string& call) {
    log_->push_back(call);
    return S_OK;
  }

  CallLog* log_;
  IAudioReader* source_;
  int segments_;
  int next_ = 0;
};

TEST_F(EditedAudio, WorksWithAnotherMakersDocumentThroughItsInterface) {
  ForeignDocument foreign(&log_, b_.Get(), 3);
  document_.Append(a_, 0, 4);
  document_.Label(L"x", 3);
  // A source without labels fails the call after the segments were transferred.
  EXPECT_EQ(document_->Insert(2, &foreign), E_FAIL);
  EXPECT_EQ(document_.Segments(), "A[0,2) B[10,20) B[10,20) B[10,20) A[2,4)");
  EXPECT_EQ(document_.Labels(), "x@33");
  EXPECT_EQ(b_->Held(), 3);

  log_.clear();
  document_->AppendSegment(nullptr, 0, 9);
  EXPECT_EQ(document_->Copy(&foreign, 31, 40), E_FAIL);
  EXPECT_THAT(log_, ElementsAre("Clear", "SetFormat(44100, 1, 16)", "AppendSegment(source, 19, 20)",
                                "AppendSegment(source, 2, 4)", "AppendSegment(null, 0, 6)"));
  log_.clear();
  EXPECT_EQ(document_->CopyAll(&foreign), E_FAIL);
  EXPECT_EQ(log_.size(), 8u);
  EXPECT_EQ(log_.back(), "AppendSegment(null, 0, 9)");
}

}  // namespace
}  // namespace marlinda::testing
