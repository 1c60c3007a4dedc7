// Labels and section markers: named positions and ranges of a document, and how edits move them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "core/records.h"

namespace marlinda {

// Returns the part of a marker within `range`, or nothing if the part is empty.
inline std::optional<CSection> ClipMarker(const CSection& marker, const CSection& range) noexcept {
  const CSection clipped(std::max(marker.begin, range.begin), std::min(marker.end, range.end));
  if (clipped.begin >= clipped.end) return std::nullopt;
  return clipped;
}

inline CSection Moved(const CSection& section, std::int64_t offset) noexcept {
  return {WrappingAdd(section.begin, offset), WrappingAdd(section.end, offset)};
}

inline bool Reaches(const Label& label, const CSection& range) noexcept {
  return range.Contains(label.position);
}

inline bool Reaches(const SectionMarker& marker, const CSection& range) noexcept {
  return ClipMarker(marker.section, range).has_value();
}

// Clips a record (label or marker) to the range, then moves it by `offset`. The record must reach
// into the range.
inline void Clip(Label& label, const CSection&, std::int64_t offset) noexcept {
  label.position = WrappingAdd(label.position, offset);
}

inline void Clip(SectionMarker& marker, const CSection& range, std::int64_t offset) noexcept {
  if (const auto kept = ClipMarker(marker.section, range)) marker.section = Moved(*kept, offset);
}

template <class Record>
std::vector<Record> PartOf(const std::vector<Record>& records, const CSection& range,
                           std::int64_t offset) {
  std::vector<Record> part;
  for (const Record& record : records) {
    if (!Reaches(record, range)) continue;
    part.push_back(record);
    Clip(part.back(), range, offset);
  }
  return part;
}

// Replaces the records by their parts in `head`, followed by their parts in `tail` moved by
// `offset`. Works in place if all records with a part in `head` precede those with a part in
// `tail`. Otherwise uses a second list for the tail.
template <class Record>
void KeepAround(std::vector<Record>& records, const CSection& head, const CSection& tail,
                std::int64_t offset) {
  std::size_t in_head = 0;
  std::size_t in_tail = 0;
  bool in_order = true;
  for (const Record& record : records) {
    in_tail += Reaches(record, tail) ? 1 : 0;
    if (!Reaches(record, head)) continue;
    ++in_head;
    in_order = in_order && in_tail == 0;
  }
  std::vector<Record> behind;
  if (!in_order) {
    behind.reserve(in_tail);
    for (const Record& record : records) {
      if (!Reaches(record, tail)) continue;
      // Copies a record that reaches both head and tail. For any other, adds an empty record, which
      // the loop below replaces.
      behind.push_back(Reaches(record, head) ? record : Record());
    }
    records.reserve(in_head + in_tail);
  }
  // Nothing fails from here on.
  auto next_behind = behind.begin();
  auto next = records.begin();
  for (Record& record : records) {
    const bool stays = Reaches(record, head);
    const bool moves = Reaches(record, tail);
    if (moves && !in_order) {
      if (!stays) *next_behind = std::move(record);
      Clip(*next_behind++, tail, offset);
    }
    if (stays) {
      Clip(record, head, 0);
    } else if (moves && in_order) {
      Clip(record, tail, offset);
    } else {
      continue;
    }
    if (&*next != &record) *next = std::move(record);
    ++next;
  }
  records.erase(next, records.end());
  std::ranges::move(behind, std::back_inserter(records));
}

// The lists are not sorted by position. The methods do not check positions and ranges. A method
// that throws changes nothing.
struct Annotations {
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;

  // Makes room for `length` frames inserted at `position`. Labels and markers at or after
  // `position` move. A marker around `position` is split in two, even if `length` is 0. The second
  // halves go to the end of the list.
  void MoveForInsertion(std::int64_t position, std::int64_t length) {
    std::vector<SectionMarker> second_halves;
    for (const SectionMarker& marker : markers) {
      if (marker.section.begin < position && position < marker.section.end) {
        second_halves.push_back({Moved({position, marker.section.end}, length), marker.name});
      }
    }
    markers.reserve(markers.size() + second_halves.size());
    // Nothing fails from here on.
    for (Label& label : labels) {
      if (label.position >= position) label.position = WrappingAdd(label.position, length);
    }
    for (SectionMarker& marker : markers) {
      CSection& section = marker.section;
      if (section.begin >= position) {
        section = Moved(section, length);
      } else if (position < section.end) {
        section.end = position;
      }
    }
    std::ranges::move(second_halves, std::back_inserter(markers));
  }

  // Returns the labels and the parts of markers in `range`, moved by `offset`.
  Annotations Part(const CSection& range, std::int64_t offset) const {
    return {PartOf(labels, range, offset), PartOf(markers, range, offset)};
  }

  // Removes the labels in `range`, clips the markers and moves everything behind the range. A
  // marker that spans the range becomes two. A backward range duplicates the records inside it.
  // `document` is the document's length.
  void Delete(const CSection& range, std::int64_t document) {
    const CSection head(0, range.begin);
    const CSection tail(range.end, document);
    const std::int64_t offset = WrappingSubtract(range.begin, range.end);
    KeepAround(labels, head, tail, offset);
    KeepAround(markers, head, tail, offset);
  }
};

}  // namespace marlinda
