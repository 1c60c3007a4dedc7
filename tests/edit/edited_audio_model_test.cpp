// Random edits of documents, compared with plain lists after each.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

// Every call of this source comes back to the documents, in a call that needs their locks alone and
// changes nothing. Where a document holds its lock over a call to a source, this hangs.
class AskingSource final : public RampSource {
 public:
  explicit AskingSource(char name) : RampSource(name, 1, nullptr, 44100) {}

  std::function<void()> ask;

  STDMETHODIMP_(ULONG) AddRef() override { return Note(""), RampSource::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return Note(""), RampSource::Release(); }

 private:
  void Note(const std::string&) override {
    if (ask) ask();
  }
};

class EditedAudioModel : public ::testing::Test {
 protected:
  // A document beside its plain lists.
  struct Pair : Document {
    PlainDocument plain;
    bool has_format = false;
  };

  void Step() {
    Pair& at = pairs_[Pick(pairs_.size())];
    Pair& other = pairs_[Pick(pairs_.size())];
    PlainDocument& plain = at.plain;
    const __int64 position = Draw(odd_ ? -20 : 0, std::max<__int64>(0, plain.Length()) + 20);
    const __int64 end = position + Draw(odd_ ? -50 : 0, 150);
    const std::string name = "n" + std::to_string(++names_);
    const PlainDocument::Segment segment = NewSegment();
    IAudioReader* const source =
        segment.source == '-' ? nullptr
                              : sources_[static_cast<std::size_t>(segment.source - 'A')].Get();
    switch (Draw(0, 16)) {
      case 0:
        plain.labels.push_back({position, name});
        return at.AddLabel(name, position);
      case 1:
        plain.markers.push_back({{position, end}, name});
        return at.AddMarker(name, position, end);
      case 2:
      case 3: {
        const auto place = static_cast<LONG>(Draw(-1, 4));
        const Bstr wide = Document::Wide(name);
        EXPECT_EQ(odd_ ? at.labels->RemoveLabel(place) : at.labels->SetLabel(place, position, wide),
                  Change(plain.labels, place, {position, name}));
        EXPECT_EQ(odd_ ? at.markers->RemoveSectionMarker(place)
                       : at.markers->SetSectionMarker(place, position, end, wide),
                  Change(plain.markers, place, {{position, end}, name}));
        return;
      }
      case 4:
        EXPECT_EQ(at->AppendSegment(source, segment.begin, segment.end), S_OK);
        plain.segments.push_back(segment);
        return Adopt(at, {segment});
      case 5:
      case 6:
      case 7:
        EXPECT_EQ(at->InsertSegment(position, source, segment.begin, segment.end), S_OK);
        plain.Insert(position, {{segment}, {}, {}});
        return Adopt(at, {segment});
      case 8:
        // Also into itself.
        if (plain.segments.size() + other.plain.segments.size() > 2000) return;
        EXPECT_EQ(at->Insert(position, other), S_OK);
        Adopt(at, other.plain.segments);
        return plain.Insert(position, PlainDocument(other.plain));
      case 9: {
        if (Draw(0, 2) != 0) return;
        const bool all = Draw(0, 1) != 0;
        EXPECT_EQ(all ? at->CopyAll(other) : at->Copy(other, position, end), S_OK);
        PlainDocument copy = all ? plain : plain.Part(position, end);
        // A copy into the document itself empties it.
        other.plain = &at == &other ? PlainDocument() : std::move(copy);
        other.has_format = at.has_format;
        return Adopt(other, other.plain.segments);
      }
      case 10:
        if (Draw(0, 2) != 0) return;
        EXPECT_EQ(at.labels->RemoveAllLabels(), S_OK);
        EXPECT_EQ(at.markers->RemoveAllSectionMarkers(), S_OK);
        return plain.labels.clear(), plain.markers.clear();
      case 11:
        at.has_format = Draw(0, 1) != 0;
        EXPECT_EQ(at->SetFormat(at.has_format ? 44100 : 0, 1, 16), S_OK);
        return;
      default:
        deletions_ += plain.segments.size() > 10 ? 1 : 0;
        EXPECT_EQ(at->Delete(position, end), S_OK);
        plain.Delete(position, end);
        Adopt(at, plain.segments);
    }
  }

  void Compare() {
    for (const Pair& pair : pairs_) {
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
    // One reference for each segment.
    for (const auto& source : sources_) {
      std::ptrdiff_t count = 0;
      for (const Pair& pair : pairs_) {
        for (const auto& each : pair.plain.segments) count += each.source == source->name();
      }
      ASSERT_EQ(source->Held(), count);
    }
  }

  // Also with empty and backward segments and ranges.
  bool odd_ = false;
  int deletions_ = 0;
  std::array<ComPtr<AskingSource>, 3> sources_ = {
      MakeObject<AskingSource>('A'), MakeObject<AskingSource>('B'), MakeObject<AskingSource>('C')};
  std::array<Pair, 3> pairs_;

 private:
  __int64 Draw(__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random_);
  }
  std::size_t Pick(std::size_t count) {
    return static_cast<std::size_t>(Draw(0, static_cast<__int64>(count) - 1));
  }
  PlainDocument::Segment NewSegment() {
    const __int64 begin = Draw(0, 3000);
    return {"ABC-"[Pick(4)], begin, begin + Draw(odd_ ? -30 : 1, 100)};
  }
  // Replaces a record, or removes it in odd rounds.
  template <class Record>
  HRESULT Change(std::vector<Record>& records, LONG place, Record record) const {
    if (place < 0 || place >= std::ssize(records)) return E_INVALIDARG;
    records[static_cast<std::size_t>(place)] = std::move(record);
    if (odd_) records.erase(records.begin() + place);
    return S_OK;
  }
  // A document without a format takes that of the first source.
  static void Adopt(Pair& pair, const std::vector<PlainDocument::Segment>& segments) {
    for (const auto& segment : segments) pair.has_format |= segment.source != '-';
  }
  std::mt19937 random_{1};
  int names_ = 0;
};

TEST_F(EditedAudioModel, HoldsWhatPlainListsHoldAfterThousandsOfEdits) {
  for (const auto& source : sources_) {
    source->ask = [this] {
      for (const Pair& pair : pairs_) EXPECT_EQ(pair.labels->RemoveLabel(-1), E_INVALIDARG);
    };
  }
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
  EXPECT_GT(deletions_, 200);
  for (const auto& source : sources_) source->ask = nullptr;
}

}  // namespace
}  // namespace marlinda::testing
