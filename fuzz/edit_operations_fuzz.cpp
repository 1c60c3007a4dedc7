// Reads bytes as a sequence of edits, of any positions, and compares the document's segments and
// annotations after each with plain lists that follow the same rules by walking.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "edit/annotations.h"
#include "edit/segment_list.h"

namespace {

using marlinda::CSection;
using marlinda::SaturatingAdd;
using marlinda::SaturatingSubtract;
using marlinda::WrappingAdd;
using marlinda::WrappingSubtract;
using List = marlinda::SegmentList<int>;
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
  // Mostly small, so that positions meet; now and then at an end of the range of numbers.
  std::int64_t Position() {
    const std::uint8_t kind = Next();
    const auto near = static_cast<std::int8_t>(Next());
    if (kind == 0) return std::numeric_limits<std::int64_t>::max() - (near & 0x7F);
    if (kind == 1) return std::numeric_limits<std::int64_t>::min() + (near & 0x7F);
    if (kind == 2) return std::int64_t{near} << 56;
    return std::int64_t{near} * (1 + kind % 4);
  }
  Segment NextSegment() {
    const int source = Next() % 5;
    const std::int64_t begin = Position();
    return {source, begin, Position()};
  }

 private:
  const std::uint8_t* data_;
  std::size_t left_;
};

bool Same(const std::vector<Segment>& a, const std::vector<Segment>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Segment& x, const Segment& y) {
    return x.source == y.source && x.begin == y.begin && x.end == y.end;
  });
}

struct Plain {
  std::vector<Segment> segments;
  marlinda::Annotations annotations;

  // Where an insertion goes, with the segment around it cut.
  std::size_t Split(std::int64_t position) {
    std::int64_t offset = 0;
    for (std::size_t i = 0; position != 0 && i < segments.size(); ++i) {
      const std::int64_t end = WrappingAdd(offset, segments[i].Length());
      if (position < end) {
        Segment rest = segments[i];
        rest.begin = WrappingAdd(rest.begin, WrappingSubtract(position, offset));
        segments[i].end = rest.begin;
        segments.insert(segments.begin() + static_cast<std::ptrdiff_t>(i) + 1, rest);
      }
      if (position <= end) return i + 1;
      offset = end;
    }
    return position == 0 ? 0 : segments.size();
  }

  std::vector<Segment> Cut(std::int64_t begin, std::int64_t end) const {
    std::vector<Segment> pieces;
    std::int64_t offset = 0;
    for (const Segment& segment : segments) {
      Segment piece = segment;
      piece.begin =
          std::max(piece.begin, SaturatingAdd(segment.begin, SaturatingSubtract(begin, offset)));
      piece.end =
          std::min(piece.end, SaturatingAdd(segment.begin, SaturatingSubtract(end, offset)));
      if (piece.begin < piece.end) pieces.push_back(piece);
      offset = WrappingAdd(offset, segment.Length());
    }
    return pieces;
  }

  void MoveForInsertion(std::int64_t position, std::int64_t length) {
    for (marlinda::Label& label : annotations.labels) {
      if (label.position >= position) label.position = WrappingAdd(label.position, length);
    }
    std::vector<marlinda::SectionMarker> halves;
    for (marlinda::SectionMarker& marker : annotations.markers) {
      CSection& section = marker.section;
      if (section.begin >= position) {
        section.begin = WrappingAdd(section.begin, length);
        section.end = WrappingAdd(section.end, length);
      } else if (section.end > position) {
        halves.push_back({CSection(WrappingAdd(position, length), WrappingAdd(section.end, length)),
                          marker.name});
        section.end = position;
      }
    }
    annotations.markers.insert(annotations.markers.end(), halves.begin(), halves.end());
  }
};

void RequireSame(const marlinda::Annotations& a, const marlinda::Annotations& b) {
  Require(std::equal(a.labels.begin(), a.labels.end(), b.labels.begin(), b.labels.end(),
                     [](const marlinda::Label& x, const marlinda::Label& y) {
                       return x.position == y.position && x.name == y.name;
                     }));
  Require(std::equal(a.markers.begin(), a.markers.end(), b.markers.begin(), b.markers.end(),
                     [](const marlinda::SectionMarker& x, const marlinda::SectionMarker& y) {
                       return x.section.begin == y.section.begin &&
                              x.section.end == y.section.end && x.name == y.name;
                     }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes bytes(data, std::min<std::size_t>(size, 4096));
  List list;
  marlinda::Annotations annotations;
  Plain plain;
  while (!bytes.empty()) {
    switch (bytes.Next() % 8) {
      case 0: {
        const Segment segment = bytes.NextSegment();
        list.Append(segment);
        plain.segments.push_back(segment);
        break;
      }
      case 1:
      case 2: {
        const std::int64_t position = bytes.Position();
        // Sometimes more than one block of the list holds.
        const std::size_t copies = bytes.Next() == 255 ? 300 : 1;
        const std::vector<Segment> inserted(copies, bytes.NextSegment());
        list.Insert(position, inserted);
        const std::size_t at = plain.Split(position);
        plain.segments.insert(plain.segments.begin() + static_cast<std::ptrdiff_t>(at),
                              inserted.begin(), inserted.end());
        annotations.MoveForInsertion(position, inserted.front().Length());
        plain.MoveForInsertion(position, inserted.front().Length());
        break;
      }
      case 3: {
        const std::int64_t begin = bytes.Position();
        const std::int64_t end = bytes.Position();
        Require(Same(list.Cut({begin, end}), plain.Cut(begin, end)));
        break;
      }
      case 4: {
        const marlinda::Label label = {bytes.Position(), std::string(1, 'a')};
        annotations.labels.push_back(label);
        plain.annotations.labels.push_back(label);
        break;
      }
      case 5: {
        const std::int64_t begin = bytes.Position();
        const marlinda::SectionMarker marker = {CSection(begin, bytes.Position()), "m"};
        annotations.markers.push_back(marker);
        plain.annotations.markers.push_back(marker);
        const CSection range(bytes.Position(), bytes.Position());
        if (const auto clipped = marlinda::ClipMarker(marker.section, range)) {
          Require(clipped->begin < clipped->end);
          Require(clipped->begin == std::max(range.begin, begin));
          Require(clipped->end == std::min(range.end, marker.section.end));
        } else {
          Require(std::max(range.begin, begin) >= std::min(range.end, marker.section.end));
        }
        break;
      }
      case 6: {
        // The iteration meets every segment and then none.
        std::size_t met = 0;
        for (const Segment* s = list.First(); s != nullptr; s = list.Next()) ++met;
        Require(met == plain.segments.size() && list.Next() == nullptr);
        break;
      }
      default:
        Require(Same(list.All(), plain.segments));
    }
    Require(list.Count() == plain.segments.size());
  }
  Require(Same(list.All(), plain.segments));
  RequireSame(annotations, plain.annotations);
  return 0;
}
