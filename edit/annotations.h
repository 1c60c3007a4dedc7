// Labels and section markers: the names that a document carries beside its segments, and how they
// follow its edits.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/records.h"

namespace marlinda {

// Both lists keep the order in which records were added; nothing sorts them. Positions and ranges
// are never checked.
struct Annotations {
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;

  // Makes room for `length` frames inserted at `position`. Labels and markers from there on move;
  // a marker around it is cut in two, also by an insertion of nothing. Deliberate: the second
  // halves go to the end of the list, not next to their first halves.
  void MoveForInsertion(std::int64_t position, std::int64_t length);

  // The labels in `range` and the markers clipped to it, all moved by `offset`.
  Annotations Part(const CSection& range, std::int64_t offset) const;
  // Adds copies behind what is there.
  void Append(const Annotations& more);
};

// The part of a marker that lies within `range`; nothing when that part is empty.
std::optional<CSection> ClipMarker(const CSection& marker, const CSection& range) noexcept;

}  // namespace marlinda
