// Tests the content of a document, its sources and its events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <olectl.h>

#include <array>
#include <limits>
#include <random>
#include <thread>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

// Aggregates a document, so that other documents reach the document only through interfaces.
class Wrapper final : public TestObject<IUnknown> {
 public:
  Wrapper() {
    Check(CoCreateInstance(CLSID_CEditedAudio, this, CLSCTX_ALL, IID_IUnknown,
                           reinterpret_cast<void**>(inner_.GetAddressOf())));
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    return IsEqualIID(iid, IID_IUnknown) ? TestObject::QueryInterface(iid, object)
                                         : inner_->QueryInterface(iid, object);
  }

 private:
  ComPtr<IUnknown> inner_;
};

class EditedAudioModel : public ::testing::Test {
 protected:
  // A document and the plain lists that it must equal.
  struct Pair : Document {
    using Document::Document;
    PlainDocument plain;
    bool has_format = false;

    // A document without a format takes the first source's format.
    void Adopt(const std::vector<PlainDocument::Segment>& segments) {
      for (const auto& segment : segments) has_format |= segment.source != '-';
    }
  };

  void Step() {
    Pair& at = pairs_[static_cast<std::size_t>(Draw(0, 2))];
    Pair& other = pairs_[static_cast<std::size_t>(Draw(0, 2))];
    PlainDocument& plain = at.plain;
    const __int64 position = Draw(odd_ ? -20 : 0, std::max<__int64>(0, plain.Length()) + 20);
    const __int64 end = position + Draw(odd_ ? -50 : 0, 150);
    const auto index = static_cast<std::size_t>(Draw(0, 3));
    const __int64 begin = Draw(0, 3000);
    const PlainDocument::Segment segment("ABC-"[index], begin, begin + Draw(odd_ ? -30 : 1, 100));
    const std::string name = "n" + std::to_string(++names_);
    const Bstr wide = Document::Wide(name);
    switch (const auto place = static_cast<LONG>(Draw(-1, 4)); Draw(0, 12)) {
      case 0:
        plain.labels.push_back({position, name});
        plain.markers.push_back({{position, end}, name});
        at.AddLabel(name, position);
        return at.AddMarker(name, position, end);
      case 1:
        EXPECT_EQ(odd_ ? at.labels->RemoveLabel(place) : at.labels->SetLabel(place, position, wide),
                  Change(plain.labels, place, {position, name}));
        EXPECT_EQ(odd_ ? at.markers->RemoveSectionMarker(place)
                       : at.markers->SetSectionMarker(place, position, end, wide),
                  Change(plain.markers, place, {{position, end}, name}));
        return;
      case 2:
        EXPECT_EQ(at->AppendSegment(sources_[index].Get(), segment.begin, segment.end), S_OK);
        plain.segments.push_back(segment);
        return at.Adopt({segment});
      case 3:
      case 4:
      case 5:
        EXPECT_EQ(at->InsertSegment(position, sources_[index].Get(), segment.begin, segment.end),
                  S_OK);
        plain.Insert(position, {{segment}, {}, {}});
        return at.Adopt({segment});
      case 6:
        // `other` may be the same document as `at`.
        if (plain.segments.size() + other.plain.segments.size() > 2000) return;
        EXPECT_EQ(at->Insert(position, other), S_OK);
        at.Adopt(other.plain.segments);
        return plain.Insert(position, PlainDocument(other.plain));
      case 7: {
        if (place > 1) return;
        EXPECT_EQ(place == 0 ? at->CopyAll(other) : at->Copy(other, position, end), S_OK);
        PlainDocument copy = place == 0 ? plain : plain.Part(position, end);
        // Copying a document into itself empties it.
        other.plain = &at == &other ? PlainDocument() : std::move(copy);
        other.has_format = at.has_format;
        return other.Adopt(other.plain.segments);
      }
      case 8:
        at.has_format = place > 1;
        EXPECT_EQ(at->SetFormat(at.has_format ? 44100 : 0, 1, 16), S_OK);
        if (place != 0) return;
        EXPECT_EQ(at.labels->RemoveAllLabels(), S_OK);
        EXPECT_EQ(at.markers->RemoveAllSectionMarkers(), S_OK);
        return plain.labels.clear(), plain.markers.clear();
      default:
        EXPECT_EQ(at->Delete(position, end), S_OK);
        plain.Delete(position, end);
        at.Adopt(plain.segments);
    }
  }

  void Compare() {
    std::array<long, 128> held = {};
    for (const Pair& pair : pairs_) {
      for (const auto& each : pair.plain.segments) ++held[static_cast<std::size_t>(each.source)];
      ASSERT_EQ(pair.Length(), pair.plain.Length());
      ASSERT_EQ(pair.Text(), pair.plain.Text());
      ASSERT_EQ(pair.Format().starts_with("44100/1/"), pair.has_format);
      if (odd_ || !pair.has_format) continue;
      const __int64 position = Draw(0, pair.plain.Length() + 5);
      std::vector<float> expected;
      for (const auto& piece : pair.plain.Part(position, position + 40).segments) {
        for (__int64 frame = piece.begin; frame < piece.end; ++frame) {
          expected.push_back(piece.source == '-' ? 0 : RampSource::Sample(piece.source, frame, 0));
        }
      }
      expected.resize(40);
      ASSERT_EQ(pair.Read(position, 40), expected);
    }
    // For each segment, a document holds one reference to the segment's source.
    for (std::size_t i = 0; i < 3; ++i) ASSERT_EQ(sources_[i]->Held(), held["ABC"[i]]);
  }

  // If true, also uses empty and backward segments and ranges.
  bool odd_ = false;
  // The last source is null, which is silence.
  std::array<ComPtr<RampSource>, 4> sources_ = {RampSource::Make('A', 1), RampSource::Make('B', 1),
                                                RampSource::Make('C', 1)};
  std::array<Pair, 3> pairs_ = {Pair(), Pair(), Pair(As<IEditedAudio>(MakeObject<Wrapper>()))};

 private:
  __int64 Draw(__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random_);
  }
  // Replaces a record, or removes it if odd_ is true.
  template <class Record>
  HRESULT Change(std::vector<Record>& records, LONG place, Record record) const {
    if (place < 0 || place >= std::ssize(records)) return E_INVALIDARG;
    records[static_cast<std::size_t>(place)] = std::move(record);
    if (odd_) records.erase(records.begin() + place);
    return S_OK;
  }

  std::mt19937 random_{1};
  int names_ = 0;
};

TEST_F(EditedAudioModel, EqualsPlainListsAfterThousandsOfEdits) {
  for (int step = 0; step < 3000; ++step) {
    odd_ = step / 500 % 2 == 1;
    for (Pair& pair : pairs_) {
      if (step % 500 != 0) break;
      EXPECT_EQ(pair->Clear(), S_OK);
      pair.plain = {};
    }
    Step();
    Compare();
    ASSERT_FALSE(HasFailure()) << "step " << step;
  }
}

class EditedAudio : public ::testing::Test {
 protected:
  static float A(__int64 frame) { return RampSource::Sample('A', frame, 0); }
  static float B(__int64 frame) { return RampSource::Sample('B', frame, 0); }

  ComPtr<Sink> MakeSink(const char* name, const IID& iid = DIID__IEAUpdateEvents) {
    const auto sink = MakeObject<Sink>(name, &log_, iid);
    sink->Connect(document_);
    return sink;
  }
  // Commits a change without edits, which fires the content event once.
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

TEST_F(EditedAudio, ReadsThroughItsSegmentsUpToASourceThatFails) {
  EXPECT_EQ(document_.reader->ReadAudio(0, Floats(4)), S_FALSE) << "no channels";
  EXPECT_EQ(document_.Format(), "1/0/16");
  document_->SetFormat(0, 6, 24);  // a rate of 0 is no format
  document_.Append(a_, 100, 104);
  document_.Append(nullptr, 0, 2);
  document_.Append(b_, 7, 9);
  document_.Append(a_, 10, 12);
  EXPECT_EQ(document_.Format(), "44100/1/24");
  EXPECT_EQ(log_, CallLog{"A.GetFormat"}) << "later sources are never asked";
  log_.clear();
  // For its part of the read, each source gets an array of zeros that it cannot resize or destroy.
  b_->on_read = [&](SAFEARRAY* array) {
    SAFEARRAYBOUND larger = {1 << 20, 0};
    EXPECT_TRUE(FAILED(SafeArrayRedim(array, &larger)) && FAILED(SafeArrayDestroy(array)));
    EXPECT_EQ(std::exchange(*static_cast<float*>(array->pvData), 99.0F), 0.0F);
  };
  EXPECT_THAT(document_.Read(1, 10),
              ElementsAre(A(101), A(102), A(103), 0, 0, B(7), B(8), A(10), A(11), 0));
  EXPECT_THAT(log_, ElementsAre("A.ReadAudio(101, 3)", "B.ReadAudio(7, 2)", "A.ReadAudio(10, 2)"));
  EXPECT_THAT(document_.Read(std::numeric_limits<__int64>::max(), 2), ElementsAre(0, 0));
  // A read that begins before frame 0 stores the first piece at the front of the array. The rest
  // of the array stays unchanged.
  EXPECT_THAT(document_.Read(-2, 4), ElementsAre(A(100), A(101), -1, -1));
  b_->read_result = E_ACCESSDENIED;
  const Floats block(8, -1.0F);
  EXPECT_EQ(document_.reader->ReadAudio(3, block), E_ACCESSDENIED);
  EXPECT_THAT(block.ToVector(), ElementsAre(A(103), 0, 0, -1, -1, -1, -1, 0));
  // Success codes other than S_OK are not failures.
  b_->read_result = S_FALSE;
  EXPECT_THAT(document_.Read(6, 3), ElementsAre(B(7), B(8), A(10)));
  // A source may change the document during a read.
  a_->on_read = [&](SAFEARRAY*) { document_->Clear(); };
  EXPECT_THAT(document_.Read(0, 7), ElementsAre(A(100), A(101), A(102), A(103), 0, 0, B(7)));
  EXPECT_EQ(document_.Length() + b_->Held(), 0);
  // The backward segment has a length of -50 frames, so this read of 120 frames has pieces of 100
  // and 70 frames. Only the first 20 frames of the last piece fit into the array.
  a_->on_read = nullptr;
  document_.Append(a_, 0, 100);
  document_.Append(b_, 50, 0);
  document_.Append(a_, 200, 300);
  EXPECT_EQ(document_.Read(0, 120)[119], A(219));
  EXPECT_EQ(log_.back(), "A.ReadAudio(200, 70)");
}

// Hosts must not edit during reads. If they do, a read returns the old or the new content.
TEST_F(EditedAudio, EditsDuringReadsOnOtherThreadsCorruptNothing) {
  const auto quiet = RampSource::Make('Q', 1);
  document_.Append(quiet, 0, 1);
  {
    const auto read = [&](const std::stop_token& stop) {
      const Floats block(500);
      while (!stop.stop_requested()) document_.reader->ReadAudio(0, block);
    };
    const std::jthread one(read);
    const std::jthread two(read);
    for (int round = 0; round < 50; ++round) {
      for (int i = 0; i < 300; ++i) document_->InsertSegment(i / 2, quiet.Get(), 0, 4);
      document_->Delete(20, 100);
      if (round % 5 == 0) document_->Clear();
    }
  }
  document_->Clear();
  EXPECT_EQ(quiet->Held(), 0);
}

TEST_F(EditedAudio, OpensAndClosesSourcesInOrderAndFailsToOpenIfItContainsItself) {
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
  // The inserted frames refer to themselves, so reading them fails.
  document_->InsertSegment(0, document_.reader.Get(), 0, 2);
  EXPECT_EQ(document_.reader->ReadAudio(0, Floats(2)), E_FAIL);
  EXPECT_EQ(document_.reader->OpenDevice(), E_FAIL);
  EXPECT_EQ(document_.reader->CloseDevice(), S_OK);
  EXPECT_EQ(document_->Clear(), S_OK);
}

TEST_F(EditedAudio, CallsSinksInSlotOrderEvenIfTheyConnectOrDisconnect) {
  const auto a = MakeSink("a");
  const auto b = MakeSink("b");
  const auto c = MakeSink("c");
  const auto point = a->Point(document_);
  ComPtr<Sink> late;
  a->on_event = [&](DISPPARAMS*) {
    a->Disconnect(document_);
    b->Disconnect(document_);
    late = MakeSink("l");
    document_.Append(nullptr, 0, 5);
    document_->InitChange(0, nullptr);
    return E_FAIL;
  };
  // A disconnected sink is no longer called. A new sink is called from the next event on.
  EXPECT_EQ(Commit(), (CallLog{"a3", "c3"}));
  ComPtr<IErrorInfo> error;
  EXPECT_EQ(GetErrorInfo(0, error.GetAddressOf()), S_OK);
  EXPECT_EQ(b->Held(), 0);
  for (const DWORD wrong : {0UL, b->cookie, c->cookie + 1}) {
    EXPECT_EQ(point->Unadvise(wrong), CONNECT_E_NOCONNECTION);
  }
  // A sink that has only IDispatch also receives events. This sink takes the free slot.
  const auto plain = MakeObject<Sink>("p", &log_, IID_IDispatch);
  EXPECT_EQ(point->Advise(plain.Get(), &plain->cookie), S_OK);
  EXPECT_EQ(document_->CommitChange(), S_OK);
  EXPECT_EQ(log_, (CallLog{"a3", "c3", "l3", "p3", "c3"}));
  const Sink property("", &log_, IID_IPropertyNotifySink);
  EXPECT_EQ(property.Point(document_)->Advise(plain.Get(), &plain->cookie),
            CONNECT_E_CANNOTCONNECT);
}

TEST_F(EditedAudio, FiresTheUndoEventBeforeAChange) {
  document_.Append(a_, 0, 10);
  log_.clear();
  const Document undo;
  const auto sink = MakeSink("u", DIID__IEAUndoEvents);
  const auto second = MakeSink("v", DIID__IEAUndoEvents);
  sink->on_event = second->on_event = [&](DISPPARAMS* params) {
    VARIANTARG* const arguments = params->rgvarg;
    EXPECT_STREQ(V_BSTR(&arguments[1]), L"Cut");
    EXPECT_EQ(V_UNKNOWN(&arguments[0]), As<IUnknown>(document_.edit).Get());
    EXPECT_EQ(As<IEditedAudio>(V_UNKNOWN(&arguments[0]))->CopyAll(undo), S_OK);
    // Clears the arguments, which a sink must not do. Other sinks and the caller are unaffected.
    VariantClear(&arguments[0]);
    VariantClear(&arguments[1]);
    return S_OK;
  };
  const Bstr name(L"Cut");
  EXPECT_EQ(document_->InitChange(-1, name), S_OK);
  EXPECT_EQ(name.str(), L"Cut");
  EXPECT_EQ(undo.Text(), "A[0,10)");
  EXPECT_EQ(a_->Held(), 3) << "no snapshot";
  // InitChange fails while a change is open. RollbackChange empties the document. Only CommitChange
  // fires the content event.
  EXPECT_EQ(document_->InitChange(1, name), E_FAIL);
  document_.AddLabel("l", 1);
  EXPECT_EQ(document_->RollbackChange(), S_OK);
  EXPECT_EQ(document_->RollbackChange(), E_FAIL);
  EXPECT_EQ(document_->CommitChange(), E_FAIL);
  EXPECT_EQ(document_.Text(), "");
  EXPECT_EQ(log_, (CallLog{"u1", "v1"}));
  document_.Append(b_, 0, 10);
  Commit();
  EXPECT_EQ(b_->Held(), 1);
  // InitChange fails if it cannot create the snapshot.
  ModuleUnderTest::Revoke();
  EXPECT_EQ(document_->InitChange(0, nullptr), REGDB_E_CLASSNOTREG);
  ModuleUnderTest::Load();
  EXPECT_EQ(document_->CommitChange(), E_FAIL);
  // A sink may release the document that calls it.
  auto doomed = Create<IEditedAudio>(CLSID_CEditedAudio);
  IEditedAudio* const raw = doomed.Get();
  sink->Connect(raw);
  sink->on_event = [&](DISPPARAMS*) { return doomed.Reset(), S_OK; };
  EXPECT_EQ(raw->InitChange(1, nullptr), S_OK);
  EXPECT_EQ(sink->Held(), 1);
}

}  // namespace
}  // namespace marlinda::testing
