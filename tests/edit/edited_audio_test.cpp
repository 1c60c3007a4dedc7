#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
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

TEST_F(EditedAudio, InsertsAtTheStartAtSegmentEndsInsideAndPastTheEnd) {
  document_.Append(a_, 100, 200);
  document_->InsertSegment(0, b_.Get(), 0, 5);
  document_->InsertSegment(105, b_.Get(), 10, 15);
  EXPECT_EQ(document_.Segments(), "B[0,5) A[100,200) B[10,15)");
  document_->InsertSegment(15, b_.Get(), 20, 25);
  EXPECT_EQ(document_.Segments(), "B[0,5) A[100,110) B[20,25) A[110,200) B[10,15)");
  document_->InsertSegment(1000, nullptr, 0, 1);
  EXPECT_EQ(document_.Segments(), "B[0,5) A[100,110) B[20,25) A[110,200) B[10,15) -[0,1)");
  EXPECT_EQ(document_.Length(), 116);
}

TEST_F(EditedAudio, ReadsThroughItsSegmentsOnePieceAfterTheOther) {
  document_.Append(a_, 100, 104);
  document_->AppendSegment(nullptr, 0, 2);
  document_.Append(b_, 7, 9);
  log_.clear();
  EXPECT_THAT(document_.Read(1, 8), ElementsAre(A(101), A(102), A(103), 0, 0, B(7), B(8), 0));
  EXPECT_THAT(log_, ElementsAre("A.ReadAudio(101, 3)", "B.ReadAudio(7, 2)"));
  EXPECT_THAT(document_.Read(8, 2), ElementsAre(0, 0));
  EXPECT_THAT(document_.Read(kMax, 2), ElementsAre(0, 0));
  // The pieces start at the front of the array also when the read begins before the document; what
  // they do not fill is left alone.
  EXPECT_THAT(document_.Read(-2, 4), ElementsAre(A(100), A(101), -1, -1));
  EXPECT_THAT(document_.Read(kMin, 2), ElementsAre(-1, -1));
}

TEST_F(EditedAudio, GivesEachSourceAFreshLookingArrayOfItsPieceOnly) {
  document_.Append(a_, 0, 6);
  document_.Append(b_, 0, 3);
  std::vector<float> seen;
  b_->on_read = [&](SAFEARRAY* array) {
    const auto* const samples = static_cast<const float*>(array->pvData);
    seen.assign(samples, samples + array->rgsabound[0].cElements);
  };
  document_.Read(0, 9);
  EXPECT_THAT(seen, ElementsAre(0, 0, 0));
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

TEST_F(EditedAudio, ASourceThatTampersWithItsArrayDoesNoHarm) {
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

TEST_F(EditedAudio, TwoThreadsMayReadItAtOnce) {
  const auto quiet = RampSource::Make('Q', 1);
  for (int i = 0; i < 1000; ++i) document_.Append(quiet, i, i + 3);
  const auto read_often = [&](std::size_t frames, int& wrong) {
    const Floats block(frames);
    for (int i = 0; i < 1000; ++i) {
      document_.reader->ReadAudio(3 * i, block);
      if (block[0] != RampSource::Sample('Q', i, 0) || block[2] != block[0] + 16) ++wrong;
    }
  };
  int wrong_here = 0;
  int wrong_there = 0;
  std::thread other([&] { read_often(30, wrong_there); });
  read_often(7, wrong_here);
  other.join();
  EXPECT_EQ(wrong_here + wrong_there, 0);
}

// Forbidden to hosts; what is read then may be either content, but nothing else must happen.
TEST_F(EditedAudio, AnEditDuringAReadDoesNotCorruptIt) {
  const auto quiet = RampSource::Make('Q', 1);
  document_.Append(quiet, 0, 1);
  std::atomic<bool> stop = false;
  std::thread other([&] {
    const Floats block(500);
    while (!stop) document_.reader->ReadAudio(0, block);
  });
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 300; ++i) document_->InsertSegment(i / 2, quiet.Get(), 0, 4);
    document_->Delete(20, 100);
    if (round % 5 == 0) document_->Clear();
  }
  stop = true;
  other.join();
  document_->Clear();
  EXPECT_EQ(quiet->Held(), 0);
}

TEST_F(EditedAudio, ReadsOddFormatsAndArraysWithoutACrash) {
  document_.Append(a_, 0, 10);
  for (const SHORT channels : {-1, -2, -32768}) {
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
  EXPECT_EQ(document_.reader->ReadAudio(0, nullptr), E_INVALIDARG);
  EXPECT_EQ(document_.reader->ReadAudio(0, ForeignArray(VT_I2)), E_INVALIDARG);
  EXPECT_EQ(document_.reader->ReadAudio(0, ForeignArray(VT_I4)), E_INVALIDARG);
  EXPECT_EQ(document_.reader->ReadAudio(0, ForeignArray(VT_R4, 2)), E_INVALIDARG);
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

TEST_F(EditedAudio, DeletesARangeByJoiningWhatIsLeft) {
  document_.Append(a_, 0, 100);
  document_.Append(b_, 0, 100);
  for (const __int64 position : {0, 49, 50, 99, 100, 199, 200}) document_.Label(L"l", position);
  document_.Marker(L"spans", 40, 120);
  document_.Marker(L"inside", 60, 70);
  document_.Marker(L"ends", 10, 55);
  document_.Marker(L"starts", 90, 150);
  EXPECT_EQ(document_->Delete(50, 100), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,50) B[0,100)");
  // The label at the very end of the document lies in neither part that is kept.
  EXPECT_EQ(document_.Labels(), "l@0 l@49 l@50 l@149");
  EXPECT_EQ(document_.Markers(), "spans[40,50) ends[10,50) spans[50,70) starts[50,100)");
  EXPECT_EQ(Format(document_), "44100/1/16");
}

TEST_F(EditedAudio, ABackwardDeleteDoublesTheFramesBetween) {
  document_.Append(a_, 0, 100);
  EXPECT_EQ(document_->Delete(60, 40), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,60) A[40,100)");
}

TEST_F(EditedAudio, DeletesOddRangesAsItsStepsGiveThem) {
  document_.Append(a_, 0, 100);
  document_.Append(b_, 5, 5);
  EXPECT_EQ(document_->Delete(1000, 2000), S_OK);
  // Copies keep nothing empty.
  EXPECT_EQ(document_.Segments(), "A[0,100)");
  EXPECT_EQ(document_->Delete(-20, 10), S_OK);
  EXPECT_EQ(document_.Segments(), "A[10,100)");
  EXPECT_EQ(document_->Delete(80, kMax), S_OK);
  EXPECT_EQ(document_.Segments(), "A[10,90)");
  EXPECT_EQ(document_->Delete(kMin, kMax), S_OK);
  EXPECT_EQ(document_.Segments(), "");
  EXPECT_EQ(a_->Held(), 0);
}

TEST_F(EditedAudio, DeleteChangesNothingWhenItCannotCreateItsHelpers) {
  document_.Append(a_, 0, 100);
  document_.Label(L"l", 10);
  ModuleUnderTest::Revoke();
  const HRESULT hr = document_->Delete(10, 20);
  ModuleUnderTest::Load();
  EXPECT_TRUE(FAILED(hr));
  EXPECT_EQ(document_.Segments(), "A[0,100)");
  EXPECT_EQ(document_.Labels(), "l@10");
}

TEST_F(EditedAudio, InsertsAnotherDocumentWithItsLabelsAndMarkers) {
  document_.Append(a_, 0, 10);
  document_.Label(L"mine", 5);
  document_.Marker(L"around", 2, 8);
  Document other;
  other.Append(b_, 0, 3);
  other->AppendSegment(nullptr, 7, 9);
  other.Label(L"theirs", 1);
  other.Marker(L"range", 4, 1);
  EXPECT_EQ(document_->Insert(5, other), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,5) B[0,3) -[7,9) A[5,10)");
  EXPECT_EQ(document_.Labels(), "mine@10 theirs@6");
  EXPECT_EQ(document_.Markers(), "around[2,5) around[10,13) range[9,6)");
  EXPECT_EQ(other.Segments(), "B[0,3) -[7,9)");
  // Nothing inserted still splits, and cuts the marker.
  EXPECT_EQ(document_->Insert(3, Document()), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,3) A[3,5) B[0,3) -[7,9) A[5,10)");
  EXPECT_EQ(document_.Markers(), "around[2,3) around[10,13) range[9,6) around[3,5)");
}

TEST_F(EditedAudio, InsertsItselfAsItWasBefore) {
  document_.Append(a_, 0, 10);
  document_.Label(L"x", 2);
  document_.Label(L"y", 7);
  document_.Marker(L"m", 1, 9);
  EXPECT_EQ(document_->Insert(4, document_), S_OK);
  EXPECT_EQ(document_.Segments(), "A[0,4) A[0,10) A[4,10)");
  EXPECT_EQ(document_.Labels(), "x@2 y@17 x@6 y@11");
  EXPECT_EQ(document_.Markers(), "m[1,4) m[14,19) m[5,13)");
}

TEST_F(EditedAudio, CopiesReplaceTheDestination) {
  document_.Append(a_, 0, 10);
  document_.Append(b_, 5, 5);
  document_.Append(b_, 0, 10);
  document_->SetFormat(8000, 1, 24);
  document_.Label(L"x", 4);
  document_.Label(L"end", 12);
  document_.Marker(L"m", 0, 20);
  document_.Marker(L"out", 12, 20);
  document_.Marker(L"empty", 6, 6);
  Document copy;
  copy.Append(a_, 50, 60);
  copy.Label(L"old", 1);
  EXPECT_EQ(document_->Copy(copy, 4, 12), S_OK);
  EXPECT_EQ(copy.Segments(), "A[4,10) B[0,2)");
  EXPECT_EQ(copy.Labels(), "x@0");
  EXPECT_EQ(copy.Markers(), "m[0,8)");
  EXPECT_EQ(Format(copy), "8000/1/24");
  EXPECT_EQ(document_->CopyAll(copy), S_OK);
  EXPECT_EQ(copy.Segments(), "A[0,10) B[5,5) B[0,10)");
  EXPECT_EQ(copy.Labels(), "x@4 end@12");
  EXPECT_EQ(copy.Markers(), "m[0,20) out[12,20) empty[6,6)");
  EXPECT_EQ(document_->Copy(copy, 5, 5), S_OK);
  EXPECT_EQ(copy.Segments() + copy.Labels() + copy.Markers(), "");
  EXPECT_EQ(Format(copy), "8000/1/24");
}

TEST_F(EditedAudio, CopiesOntoItselfEmptyIt) {
  document_.Append(a_, 0, 10);
  document_.Label(L"x", 4);
  EXPECT_EQ(document_->Copy(document_, 0, 10), S_OK);
  EXPECT_EQ(document_.Segments() + document_.Labels(), "");
  document_.Append(a_, 0, 10);
  EXPECT_EQ(document_->CopyAll(document_), S_OK);
  EXPECT_EQ(document_.Segments(), "");
  EXPECT_EQ(Format(document_), "44100/1/16");
}

TEST_F(EditedAudio, LendsTheSourcesOfItsSegmentsAndEndsForGood) {
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
    EXPECT_EQ(b_->Held(), 2);
    document_.Read(0, 1000);
    document_.reader->OpenDevice();
    document_.reader->CloseDevice();
    document_->Delete(10, 990);
    EXPECT_LT(a_->Held(), 600);
    document_->Clear();
  }
  EXPECT_EQ(a_->Held(), 0);
  EXPECT_EQ(b_->Held(), 0);
}

TEST_F(EditedAudio, RefusesNoDocument) {
  EXPECT_EQ(document_->Insert(0, nullptr), E_POINTER);
  EXPECT_EQ(document_->Copy(nullptr, 0, 1), E_POINTER);
  EXPECT_EQ(document_->CopyAll(nullptr), E_POINTER);
}

TEST_F(EditedAudio, KeepsLabelsInTheOrderTheyWereAdded) {
  document_.Label(L"late", 500);
  document_.Label(L"early", 100);
  document_.Label(L"", 100);
  EXPECT_EQ(document_.Labels(), "late@500 early@100 @100");
  EXPECT_EQ(document_.labels->SetLabel(0, -7, Bstr(L"moved")), S_OK);
  EXPECT_EQ(document_.Labels(), "moved@-7 early@100 @100");
  EXPECT_EQ(document_.labels->RemoveLabel(1), S_OK);
  EXPECT_EQ(document_.Labels(), "moved@-7 @100");
  EXPECT_EQ(document_.labels->AddLabel(3, nullptr), S_OK);
  EXPECT_EQ(document_.Labels(), "moved@-7 @100 @3");
  document_.Append(a_, 0, 1000);
  EXPECT_EQ(document_.Labels(), "moved@-7 @100 @3");
  for (const LONG index : {-1L, 3L, 2147483647L, -2147483647L}) {
    __int64 position = 0;
    Bstr name;
    EXPECT_EQ(document_.labels->GetLabel(index, &position, name.Receive()), E_INVALIDARG);
    EXPECT_EQ(document_.labels->SetLabel(index, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(document_.labels->RemoveLabel(index), E_INVALIDARG);
  }
  EXPECT_EQ(document_.labels->RemoveAllLabels(), S_OK);
  EXPECT_EQ(document_.Labels(), "");
}

TEST_F(EditedAudio, KeepsSectionMarkersInTheOrderTheyWereAdded) {
  document_.Marker(L"late", 500, 600);
  document_.Marker(L"backward", 100, 50);
  EXPECT_EQ(document_.Markers(), "late[500,600) backward[100,50)");
  EXPECT_EQ(document_.markers->SetSectionMarker(0, -7, 7, Bstr(L"moved")), S_OK);
  EXPECT_EQ(document_.Markers(), "moved[-7,7) backward[100,50)");
  document_->InsertSegment(0, nullptr, 0, 10);
  EXPECT_EQ(document_.Markers(), "moved[-7,0) backward[110,60) moved[10,17)");
  EXPECT_EQ(document_.markers->RemoveSectionMarker(1), S_OK);
  EXPECT_EQ(document_.Markers(), "moved[-7,0) moved[10,17)");
  for (const LONG index : {-1L, 2L, 2147483647L, -2147483647L}) {
    __int64 position = 0;
    Bstr name;
    EXPECT_EQ(document_.markers->GetSectionMarker(index, &position, &position, name.Receive()),
              E_INVALIDARG);
    EXPECT_EQ(document_.markers->SetSectionMarker(index, 0, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(document_.markers->RemoveSectionMarker(index), E_INVALIDARG);
  }
  EXPECT_EQ(document_.markers->RemoveAllSectionMarkers(), S_OK);
  EXPECT_EQ(document_.Markers(), "");
}

// A name goes in through the system's code page, so it has to come out through that as well.
TEST_F(EditedAudio, GivesNamesBackWhateverTheLocaleOfTheThread) {
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

TEST_F(EditedAudio, ClearKeepsTheFormat) {
  document_.Append(a_, 0, 10);
  document_.Label(L"x", 1);
  document_.Marker(L"m", 1, 2);
  EXPECT_EQ(document_->Clear(), S_OK);
  EXPECT_EQ(document_.Segments() + document_.Labels() + document_.Markers(), "");
  EXPECT_EQ(document_.Length(), 0);
  EXPECT_EQ(Format(document_), "44100/1/16");
}

TEST_F(EditedAudio, ReadsSilenceFromTheSilenceSource) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  silence->Create(100, 48000, 2);
  EXPECT_EQ(document_->AppendSegment(As<IAudioReader>(silence).Get(), 0, 100), S_OK);
  EXPECT_EQ(Format(document_), "48000/2/16");
  EXPECT_THAT(document_.Read(98, 6), ElementsAre(0, 0, 0, 0, 0, 0));
}

// Another maker's document: it hands out one segment again and again, notes what a copy into it
// brings, and has neither labels nor markers.
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
  // What has no labels lets the call fail after the segments were transferred.
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
