// Random edits on documents and on plain lists of samples, labels and markers, compared after each.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

constexpr SHORT kChannels = 2;

struct Frame {
  char source = '-';
  __int64 number = 0;
};

struct PlainLabel {
  std::string name;
  __int64 position;
};

struct PlainMarker {
  std::string name;
  __int64 begin;
  __int64 end;
};

// A document as nothing but its content.
struct PlainDocument {
  std::vector<Frame> frames;
  std::vector<PlainLabel> labels;
  std::vector<PlainMarker> markers;

  __int64 Length() const { return static_cast<__int64>(frames.size()); }

  void Insert(__int64 position, const PlainDocument& other) {
    const __int64 length = other.Length();
    for (PlainLabel& label : labels) {
      if (label.position >= position) label.position += length;
    }
    std::vector<PlainMarker> second_halves;
    for (PlainMarker& marker : markers) {
      if (marker.begin >= position) {
        marker.begin += length;
        marker.end += length;
      } else if (marker.end > position) {
        second_halves.push_back({marker.name, position + length, marker.end + length});
        marker.end = position;
      }
    }
    markers.insert(markers.end(), second_halves.begin(), second_halves.end());
    for (PlainLabel label : other.labels) {
      labels.push_back({label.name, label.position + position});
    }
    for (PlainMarker marker : other.markers) {
      markers.push_back({marker.name, marker.begin + position, marker.end + position});
    }
    frames.insert(frames.begin() + std::min(position, Length()), other.frames.begin(),
                  other.frames.end());
  }

  PlainDocument Part(__int64 begin, __int64 end) const {
    PlainDocument part;
    for (__int64 i = begin; i < std::min(end, Length()); ++i) {
      part.frames.push_back(frames[static_cast<std::size_t>(i)]);
    }
    for (const PlainLabel& label : labels) {
      if (begin <= label.position && label.position < end) {
        part.labels.push_back({label.name, label.position - begin});
      }
    }
    for (const PlainMarker& marker : markers) {
      const __int64 first = std::max(begin, marker.begin);
      const __int64 last = std::min(end, marker.end);
      if (first < last) part.markers.push_back({marker.name, first - begin, last - begin});
    }
    return part;
  }

  std::string LabelText() const {
    std::string text;
    for (const auto& label : labels) {
      text += (text.empty() ? "" : " ") + label.name + "@" + std::to_string(label.position);
    }
    return text;
  }

  std::string MarkerText() const {
    std::string text;
    for (const auto& marker : markers) {
      text += (text.empty() ? "" : " ") + marker.name + "[" + std::to_string(marker.begin) + "," +
              std::to_string(marker.end) + ")";
    }
    return text;
  }

  std::vector<float> Samples(__int64 position, __int64 count) const {
    std::vector<float> samples;
    for (__int64 i = position; i < position + count; ++i) {
      const Frame frame = i < Length() ? frames[static_cast<std::size_t>(i)] : Frame{};
      for (int channel = 0; channel < kChannels; ++channel) {
        samples.push_back(
            frame.source == '-' ? 0.0F : RampSource::Sample(frame.source, frame.number, channel));
      }
    }
    return samples;
  }
};

class RandomSession {
 public:
  explicit RandomSession(unsigned seed) : random_(seed) {
    for (const char name : {'A', 'B', 'C'}) sources_.push_back(RampSource::Make(name, kChannels));
    for (const Document& document : documents_) document->SetFormat(44100, kChannels, 16);
  }

  void Step() {
    const std::size_t which = Pick(documents_.size());
    const std::size_t other = Pick(documents_.size());
    const Document& document = documents_[which];
    PlainDocument& plain = plain_[which];
    const __int64 position = Draw(0, plain.Length() + 20);
    const __int64 end = position + Draw(0, 150);
    switch (Draw(0, 15)) {
      case 0:
      case 1:
      case 2:
        document.Label(NewName(), position);
        plain.labels.push_back({name_, position});
        break;
      case 3:
      case 4:
        document.Marker(NewName(), position, end);
        plain.markers.push_back({name_, position, end});
        break;
      case 5: {
        const PlainDocument added = NewSegment();
        EXPECT_EQ(document->AppendSegment(source_, begin_, end_), S_OK);
        plain.frames.insert(plain.frames.end(), added.frames.begin(), added.frames.end());
        break;
      }
      case 6:
      case 7:
      case 8: {
        const PlainDocument added = NewSegment();
        EXPECT_EQ(document->InsertSegment(position, source_, begin_, end_), S_OK);
        plain.Insert(position, added);
        break;
      }
      case 9:
        // Also with itself.
        if (plain.Length() + plain_[other].Length() > 20000) break;
        EXPECT_EQ(document->Insert(position, documents_[other]), S_OK);
        plain.Insert(position, PlainDocument(plain_[other]));
        break;
      case 10:
        if (other == which) break;
        EXPECT_EQ(document->Copy(documents_[other], position, end), S_OK);
        plain_[other] = plain.Part(position, end);
        break;
      case 11:
        if (other == which || Draw(0, 3) != 0) break;
        EXPECT_EQ(document->CopyAll(documents_[other]), S_OK);
        plain_[other] = plain;
        break;
      case 12:
      case 13:
        Delete(document, plain, position, end);
        break;
      case 14:
        // What lies between is doubled.
        Delete(document, plain, position, Draw(std::max<__int64>(0, position - 30), position));
        break;
      default:
        if (Draw(0, 20) == 0) {
          EXPECT_EQ(document->Clear(), S_OK);
          plain = {};
        }
    }
  }

  void Compare() {
    for (std::size_t i = 0; i < documents_.size(); ++i) {
      const PlainDocument& plain = plain_[i];
      ASSERT_EQ(documents_[i].Length(), plain.Length());
      ASSERT_EQ(documents_[i].Labels(), plain.LabelText());
      ASSERT_EQ(documents_[i].Markers(), plain.MarkerText());
      const __int64 position = Draw(0, plain.Length() + 5);
      const __int64 count = Draw(0, 40);
      ASSERT_EQ(documents_[i].Read(position, static_cast<std::size_t>(count * kChannels)),
                plain.Samples(position, count));
    }
  }

  void CompareWhole() {
    for (std::size_t i = 0; i < documents_.size(); ++i) {
      const __int64 count = plain_[i].Length();
      ASSERT_EQ(documents_[i].Read(0, static_cast<std::size_t>(count * kChannels)),
                plain_[i].Samples(0, count));
    }
  }

  void ClearAll() {
    for (const Document& document : documents_) document->Clear();
    for (const auto& source : sources_) EXPECT_EQ(source->Held(), 0);
  }

  __int64 longest() const { return longest_; }
  int deletions() const { return deletions_; }

 private:
  __int64 Draw(__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random_);
  }
  std::size_t Pick(std::size_t count) {
    return static_cast<std::size_t>(Draw(0, static_cast<__int64>(count) - 1));
  }

  std::wstring NewName() {
    name_ = "n" + std::to_string(++names_);
    return {name_.begin(), name_.end()};
  }

  // Draws the arguments of one new segment and returns its content.
  PlainDocument NewSegment() {
    const std::size_t which = Pick(sources_.size() + 1);
    source_ = which < sources_.size() ? sources_[which].Get() : nullptr;
    begin_ = Draw(0, 3000);
    end_ = begin_ + Draw(0, 100);
    PlainDocument content;
    for (__int64 i = begin_; i < end_; ++i) {
      content.frames.push_back({source_ != nullptr ? sources_[which]->name() : '-', i});
    }
    return content;
  }

  void Delete(const Document& document, PlainDocument& plain, __int64 begin, __int64 end) {
    longest_ = std::max(longest_, plain.Length());
    ++deletions_;
    EXPECT_EQ(document->Delete(begin, end), S_OK);
    const PlainDocument tail = plain.Part(end, plain.Length());
    plain = plain.Part(0, begin);
    plain.Insert(begin, tail);
  }

  std::mt19937 random_;
  std::vector<ComPtr<RampSource>> sources_;
  std::vector<Document> documents_ = std::vector<Document>(3);
  std::vector<PlainDocument> plain_ = std::vector<PlainDocument>(3);
  IAudioReader* source_ = nullptr;
  __int64 begin_ = 0;
  __int64 end_ = 0;
  std::string name_;
  int names_ = 0;
  __int64 longest_ = 0;
  int deletions_ = 0;
};

TEST(EditedAudioModel, HoldsWhatPlainListsHoldAfterThousandsOfEdits) {
  for (const unsigned seed : {1u, 2u}) {
    SCOPED_TRACE(seed);
    RandomSession session(seed);
    for (int step = 0; step < 3000; ++step) {
      session.Step();
      if (step % 3 == 0) session.Compare();
      if (step % 300 == 0) session.CompareWhole();
      if (::testing::Test::HasFailure()) return;
    }
    session.CompareWhole();
    EXPECT_GT(session.longest(), 1000);
    EXPECT_GT(session.deletions(), 300);
    session.ClearAll();
  }
}

}  // namespace
}  // namespace marlinda::testing
