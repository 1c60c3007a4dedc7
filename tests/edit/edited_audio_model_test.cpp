// Random edits of documents, compared with plain lists after each.
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "tests/edit/document.h"
#include "tests/edit/plain_document.h"

namespace marlinda::testing {
namespace {

class EditedAudioModel : public ::testing::Test {
 protected:
  EditedAudioModel() {
    for (const char name : {'A', 'B', 'C'}) sources_.push_back(RampSource::Make(name, 1));
    for (const Document& document : documents_) document->SetFormat(44100, 1, 16);
  }

  void Step() {
    const std::size_t which = Pick(documents_.size());
    const std::size_t other = Pick(documents_.size());
    const Document& document = documents_[which];
    PlainDocument& plain = plain_[which];
    const __int64 length = plain.Length();
    const __int64 position = Draw(odd_ ? -20 : 0, std::max<__int64>(0, length) + 20);
    const __int64 end = position + Draw(odd_ ? -50 : 0, 150);
    switch (Draw(0, 12)) {
      case 0:
      case 1:
        plain.labels.push_back({position, NewName()});
        document.Label(name_, position);
        break;
      case 2:
      case 3:
        plain.markers.push_back({{position, end}, NewName()});
        document.Marker(name_, position, end);
        break;
      case 4: {
        const PlainDocument::Segment segment = NewSegment();
        EXPECT_EQ(document->AppendSegment(Source(segment), segment.begin, segment.end), S_OK);
        plain.segments.push_back(segment);
        break;
      }
      case 5:
      case 6:
      case 7: {
        const PlainDocument::Segment segment = NewSegment();
        EXPECT_EQ(document->InsertSegment(position, Source(segment), segment.begin, segment.end),
                  S_OK);
        plain.Insert(position, {{segment}, {}, {}});
        break;
      }
      case 8:
        // Also into itself.
        if (plain.segments.size() + plain_[other].segments.size() > 2000) break;
        EXPECT_EQ(document->Insert(position, documents_[other]), S_OK);
        plain.Insert(position, PlainDocument(plain_[other]));
        break;
      case 9:
        if (Draw(0, 4) != 0) break;
        EXPECT_EQ(document->Copy(documents_[other], position, end), S_OK);
        plain_[other] = which == other ? PlainDocument() : plain.Part(position, end);
        break;
      case 10:
        if (Draw(0, 4) != 0) break;
        EXPECT_EQ(document->CopyAll(documents_[other]), S_OK);
        if (which != other) plain_[other] = plain;
        if (which == other) plain = {};
        break;
      default:
        deletions_ += plain.segments.size() > 10 ? 1 : 0;
        EXPECT_EQ(document->Delete(position, end), S_OK);
        plain.Delete(position, end);
    }
  }

  void Compare() {
    for (std::size_t i = 0; i < documents_.size(); ++i) {
      const PlainDocument& plain = plain_[i];
      ASSERT_EQ(documents_[i].Length(), plain.Length());
      ASSERT_EQ(documents_[i].Segments(), PlainDocument::Text(plain.segments));
      ASSERT_EQ(documents_[i].Labels(), PlainDocument::Text(plain.labels));
      ASSERT_EQ(documents_[i].Markers(), PlainDocument::Text(plain.markers));
      if (odd_) continue;
      const __int64 position = Draw(0, plain.Length() + 5);
      std::vector<float> expected;
      for (const PlainDocument::Segment& piece : plain.Part(position, position + 40).segments) {
        for (__int64 frame = piece.begin; frame < piece.end; ++frame) {
          expected.push_back(piece.source == '-' ? 0 : RampSource::Sample(piece.source, frame, 0));
        }
      }
      expected.resize(40);
      ASSERT_EQ(documents_[i].Read(position, 40), expected);
    }
  }

  // Also with empty and backward segments and ranges.
  bool odd_ = false;
  int deletions_ = 0;
  std::vector<ComPtr<RampSource>> sources_;
  std::array<Document, 3> documents_;
  std::array<PlainDocument, 3> plain_;

 private:
  __int64 Draw(__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random_);
  }
  std::size_t Pick(std::size_t count) {
    return static_cast<std::size_t>(Draw(0, static_cast<__int64>(count) - 1));
  }
  std::string NewName() {
    const std::string name = "n" + std::to_string(++names_);
    name_ = {name.begin(), name.end()};
    return name;
  }
  PlainDocument::Segment NewSegment() {
    const __int64 begin = Draw(0, 3000);
    return {"ABC-"[Pick(4)], begin, begin + Draw(odd_ ? -30 : 1, 100)};
  }
  IAudioReader* Source(const PlainDocument::Segment& segment) const {
    return segment.source == '-' ? nullptr
                                 : sources_[static_cast<std::size_t>(segment.source - 'A')].Get();
  }

  std::mt19937 random_{1};
  std::wstring name_;
  int names_ = 0;
};

TEST_F(EditedAudioModel, HoldsWhatPlainListsHoldAfterThousandsOfEdits) {
  for (int step = 0; step < 3000; ++step) {
    odd_ = step / 500 % 2 == 1;
    if (step % 500 == 0) {
      for (const Document& document : documents_) document->Clear();
      plain_ = {};
    }
    Step();
    Compare();
    ASSERT_FALSE(HasFailure()) << "step " << step;
  }
  EXPECT_GT(deletions_, 200);
  for (const Document& document : documents_) document->Clear();
  for (const auto& source : sources_) EXPECT_EQ(source->Held(), 0);
}

}  // namespace
}  // namespace marlinda::testing
