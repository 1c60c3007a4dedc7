#include "edit/annotations.h"

#include <algorithm>
#include <iterator>

namespace marlinda {

void Annotations::MoveForInsertion(std::int64_t position, std::int64_t length) {
  std::vector<SectionMarker> second_halves;
  for (const SectionMarker& marker : markers) {
    if (marker.section.begin < position && position < marker.section.end) {
      second_halves.push_back(
          {{WrappingAdd(position, length), WrappingAdd(marker.section.end, length)}, marker.name});
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
      section = {WrappingAdd(section.begin, length), WrappingAdd(section.end, length)};
    } else if (position < section.end) {
      section.end = position;
    }
  }
  std::ranges::move(second_halves, std::back_inserter(markers));
}

Annotations Annotations::Part(const CSection& range, std::int64_t offset) const {
  Annotations part;
  for (const Label& label : labels) {
    if (!range.Contains(label.position)) continue;
    part.labels.push_back({WrappingAdd(label.position, offset), label.name});
  }
  for (const SectionMarker& marker : markers) {
    const std::optional<CSection> kept = ClipMarker(marker.section, range);
    if (!kept) continue;
    part.markers.push_back(
        {{WrappingAdd(kept->begin, offset), WrappingAdd(kept->end, offset)}, marker.name});
  }
  return part;
}

void Annotations::Append(const Annotations& more) {
  labels.insert(labels.end(), more.labels.begin(), more.labels.end());
  markers.insert(markers.end(), more.markers.begin(), more.markers.end());
}

std::optional<CSection> ClipMarker(const CSection& marker, const CSection& range) noexcept {
  const CSection clipped(std::max(marker.begin, range.begin), std::min(marker.end, range.end));
  if (clipped.begin >= clipped.end) return std::nullopt;
  return clipped;
}

}  // namespace marlinda
