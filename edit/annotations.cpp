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

std::optional<CSection> ClipMarker(const CSection& marker, const CSection& range) noexcept {
  const CSection clipped(std::max(marker.begin, range.begin), std::min(marker.end, range.end));
  if (clipped.begin >= clipped.end) return std::nullopt;
  return clipped;
}

}  // namespace marlinda
