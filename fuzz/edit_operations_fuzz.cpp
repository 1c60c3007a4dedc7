// Interprets the input as a sequence of edits at arbitrary positions. Compares the segments, labels
// and markers of the kernels with plain lists that follow the same rules.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "edit/annotations.h"
#include "edit/segment_list.h"
#include "tests/edit/plain_document.h"

namespace {

using marlinda::Annotations;
using marlinda::CSection;
using marlinda::testing::PlainDocument;
using List = marlinda::SegmentList<char>;
using Segment = List::Segment;

void Require(bool holds) {
  if (!holds) std::abort();
}

class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}
  bool empty() const { return left_ == 0; }
  std::uint8_t Next() {
    if (left_ == 0) return 0;
    --left_;
    return *data_++;
  }
  // Mostly returns small numbers, so that positions coincide. Some are near the 64-bit limits.
  std::int64_t Position() {
    const std::uint8_t kind = Next();
    const auto near = static_cast<std::int8_t>(Next());
    if (kind == 0) return std::numeric_limits<std::int64_t>::max() - (near & 0x7F);
    if (kind == 1) return std::numeric_limits<std::int64_t>::min() + (near & 0x7F);
    if (kind == 2) return std::int64_t{near} << 56;
    return std::int64_t{near} * (1 + kind % 4);
  }
  CSection Range() {
    const std::int64_t begin = Position();
    return {begin, Position()};
  }
  // About half of the segments contain no frames.
  Segment NextSegment() {
    const auto source = static_cast<char>('A' + Next() % 5);
    const std::int64_t begin = Position();
    const std::uint8_t length = Next();
    if (length == 0) return {source, begin, Position()};
    return {source, begin, marlinda::SaturatingAdd(begin, length % 128 * (length < 128 ? 1 : -1))};
  }

 private:
  const std::uint8_t* data_;
  std::size_t left_;
};

char Divided(const List& list, const CSection& range) {
  const Segment* const divided = list.DividedBy(range);
  return divided != nullptr ? divided->source : '?';
}

void Insert(List& list, std::int64_t position, std::vector<Segment> segments) {
  char divided = Divided(list, {position, position});
  list.Insert(position, segments, divided);
}

std::string TextOf(const List& list, const Annotations& annotations) {
  PlainDocument found{{}, annotations.labels, annotations.markers};
  list.ForEach([&](char source, const CSection& segment) {
    found.segments.emplace_back(source, segment.begin, segment.end);
  });
  Require(list.Count() == found.segments.size() && list.Length() == found.Length());
  return found.Text();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes bytes(data, std::min<std::size_t>(size, 4096));
  List list;
  Annotations annotations;
  PlainDocument plain;
  char name = 'a';
  while (!bytes.empty()) {
    switch (bytes.Next() % 8) {
      case 0:
        plain.segments.push_back(bytes.NextSegment());
        list.Append(plain.segments.back());
        break;
      case 1:
      case 2: {
        const std::int64_t position = bytes.Position();
        // One insertion in 64 has more segments than one block of the list holds.
        PlainDocument inserted;
        inserted.segments.assign(bytes.Next() % 64 == 63 ? 300 : 1, bytes.NextSegment());
        Insert(list, position, inserted.segments);
        annotations.MoveForInsertion(position, inserted.Length());
        plain.Insert(position, inserted);
        break;
      }
      case 3: {
        const CSection range = bytes.Range();
        const PlainDocument part = plain.Part(range.begin, range.end);
        const Annotations kept =
            annotations.Part(range, marlinda::WrappingSubtract(0, range.begin));
        PlainDocument found{{}, kept.labels, kept.markers};
        list.ForEachPiece(range, [&](char source, const CSection& piece) {
          found.segments.emplace_back(source, piece.begin, piece.end);
        });
        Require(found.Text() == part.Text());
        break;
      }
      case 4:
        plain.labels.push_back({bytes.Position(), std::string(30, name++)});
        annotations.labels.push_back(plain.labels.back());
        break;
      case 5:
        plain.markers.push_back({bytes.Range(), std::string(30, name++)});
        annotations.markers.push_back(plain.markers.back());
        break;
      case 6: {
        const CSection range = bytes.Range();
        annotations.Delete(range, list.Length());
        if (list.AllHaveFrames() && range.begin >= 0 && range.begin <= range.end) {
          const std::size_t before = list.Count();
          char divided = Divided(list, range);
          Require(list.Remove(range, divided).size() + list.Count() <= before + 1);
          Require(list.Next() == nullptr);
        } else {
          // Rebuilds the list, as DocumentContent::Delete does.
          list.RemoveAll();
          for (const Segment& s : plain.Part(0, range.begin).segments) list.Append(s);
          Insert(list, range.begin, plain.Part(range.end, plain.Length()).segments);
        }
        plain.Delete(range.begin, range.end);
        Require(TextOf(list, annotations) == plain.Text());
        break;
      }
      default:
        list.First();
    }
  }
  Require(TextOf(list, annotations) == plain.Text());
  return 0;
}
