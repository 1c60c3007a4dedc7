// Implements the rules of editing with plain lists. The kernels' fuzzer and the test with random
// edits compare their documents with these lists.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "core/records.h"
#include "edit/segment_list.h"

namespace marlinda::testing {

struct PlainDocument {
  using Segment = CAudioSegment<char>;

  // Each source is a letter; '-' is silence.
  std::vector<Segment> segments;
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;

  std::int64_t Length() const {
    std::int64_t length = 0;
    for (const Segment& segment : segments) length = WrappingAdd(length, segment.Length());
    return length;
  }

  void Insert(std::int64_t position, const PlainDocument& other) {
    const auto at = static_cast<std::ptrdiff_t>(Split(position));
    segments.insert(segments.begin() + at, other.segments.begin(), other.segments.end());
    Move(position, other.Length());
    for (const Label& label : other.labels) {
      labels.push_back({WrappingAdd(label.position, position), label.name});
    }
    for (const SectionMarker& marker : other.markers) {
      markers.push_back({Moved(marker.section, position), marker.name});
    }
  }

  PlainDocument Part(std::int64_t begin, std::int64_t end) const {
    PlainDocument part;
    std::int64_t offset = 0;
    for (const Segment& segment : segments) {
      const auto first = SaturatingAdd(segment.begin, SaturatingSubtract(begin, offset));
      const auto last = SaturatingAdd(segment.begin, SaturatingSubtract(end, offset));
      const Segment piece(segment.source, std::max(segment.begin, first),
                          std::min(segment.end, last));
      if (piece.begin < piece.end) part.segments.push_back(piece);
      offset = WrappingAdd(offset, segment.Length());
    }
    const std::int64_t left = WrappingSubtract(0, begin);
    for (const Label& label : labels) {
      if (begin > label.position || label.position >= end) continue;
      part.labels.push_back({WrappingAdd(label.position, left), label.name});
    }
    for (const SectionMarker& marker : markers) {
      const CSection kept(std::max(begin, marker.section.begin), std::min(end, marker.section.end));
      if (kept.begin < kept.end) part.markers.push_back({Moved(kept, left), marker.name});
    }
    return part;
  }

  void Delete(std::int64_t begin, std::int64_t end) {
    const PlainDocument tail = Part(end, Length());
    *this = Part(0, begin);
    Insert(begin, tail);
  }

  // Returns, for example, "A[0,10) -[5,7) intro@5 verse[5,7)".
  std::string Text() const {
    std::string text;
    for (const Segment& each : segments) text += std::string(1, each.source) + Text(each);
    for (const Label& each : labels) text += each.name + "@" + std::to_string(each.position) + " ";
    for (const SectionMarker& each : markers) text += each.name + Text(each.section);
    if (!text.empty()) text.pop_back();
    return text;
  }

 private:
  static std::string Text(const CSection& section) {
    return "[" + std::to_string(section.begin) + "," + std::to_string(section.end) + ") ";
  }
  static CSection Moved(const CSection& section, std::int64_t offset) {
    return {WrappingAdd(section.begin, offset), WrappingAdd(section.end, offset)};
  }

  // Splits a segment that contains the position. Returns how many segments precede the position.
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

  void Move(std::int64_t position, std::int64_t length) {
    for (Label& label : labels) {
      if (label.position >= position) label.position = WrappingAdd(label.position, length);
    }
    for (std::size_t i = 0, count = markers.size(); i < count; ++i) {
      const SectionMarker marker = markers[i];
      if (marker.section.begin >= position) {
        markers[i].section = Moved(marker.section, length);
      } else if (marker.section.end > position) {
        markers[i].section.end = position;
        markers.push_back({Moved({position, marker.section.end}, length), marker.name});
      }
    }
  }
};

}  // namespace marlinda::testing
