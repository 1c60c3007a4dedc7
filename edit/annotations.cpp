#include "edit/annotations.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

namespace marlinda {
namespace {

CSection Moved(const CSection& section, std::int64_t offset) noexcept {
  return {WrappingAdd(section.begin, offset), WrappingAdd(section.end, offset)};
}

// The part of a record within `range`, moved by `offset` and without its name; nothing when the
// range holds no part of it.
std::optional<Label> Clip(const Label& label, const CSection& range, std::int64_t offset) {
  if (!range.Contains(label.position)) return std::nullopt;
  return Label{WrappingAdd(label.position, offset), {}};
}

std::optional<SectionMarker> Clip(const SectionMarker& marker, const CSection& range,
                                  std::int64_t offset) {
  const std::optional<CSection> kept = ClipMarker(marker.section, range);
  if (!kept) return std::nullopt;
  return SectionMarker{Moved(*kept, offset), {}};
}

template <class Record>
std::vector<Record> PartOf(const std::vector<Record>& records, const CSection& range,
                           std::int64_t offset) {
  std::vector<Record> part;
  for (const Record& record : records) {
    std::optional<Record> kept = Clip(record, range, offset);
    if (!kept) continue;
    kept->name = record.name;
    part.push_back(std::move(*kept));
  }
  return part;
}

// Names are copied only where a record becomes two.
template <class Record>
void KeepAround(std::vector<Record>& records, const CSection& head, const CSection& tail,
                std::int64_t offset) {
  std::vector<Record> behind;
  std::size_t before = 0;
  for (const Record& record : records) {
    const bool in_head = Clip(record, head, 0).has_value();
    before += in_head ? 1 : 0;
    std::optional<Record> kept = Clip(record, tail, offset);
    if (!kept) continue;
    if (in_head) kept->name = record.name;
    behind.push_back(std::move(*kept));
  }
  records.reserve(before + behind.size());
  // Nothing fails from here on.
  auto next_behind = behind.begin();
  auto next_before = records.begin();
  for (Record& record : records) {
    std::optional<Record> kept = Clip(record, head, 0);
    if (Clip(record, tail, 0)) {
      if (!kept) next_behind->name = std::move(record.name);
      ++next_behind;
    }
    if (!kept) continue;
    kept->name = std::move(record.name);
    *next_before++ = std::move(*kept);
  }
  records.erase(next_before, records.end());
  std::ranges::move(behind, std::back_inserter(records));
}

}  // namespace

void Annotations::MoveForInsertion(std::int64_t position, std::int64_t length) {
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

Annotations Annotations::Part(const CSection& range, std::int64_t offset) const {
  return {PartOf(labels, range, offset), PartOf(markers, range, offset)};
}

void Annotations::Delete(const CSection& range, std::int64_t document) {
  const CSection head(0, range.begin);
  const CSection tail(range.end, document);
  const std::int64_t offset = WrappingSubtract(range.begin, range.end);
  KeepAround(labels, head, tail, offset);
  KeepAround(markers, head, tail, offset);
}

std::optional<CSection> ClipMarker(const CSection& marker, const CSection& range) noexcept {
  const CSection clipped(std::max(marker.begin, range.begin), std::min(marker.end, range.end));
  if (clipped.begin >= clipped.end) return std::nullopt;
  return clipped;
}

}  // namespace marlinda
