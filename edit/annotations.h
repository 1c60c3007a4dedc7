// Labels and section markers: named positions and ranges of a document, and how edits move them.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/records.h"

namespace marlinda {

// Both lists keep the order in which records were added. Positions and ranges are never checked.
// Nothing has changed when a method throws.
struct Annotations {
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;

  // Makes room for `length` frames inserted at `position`. Labels and markers from there on move;
  // a marker around it is cut in two, also by an insertion of nothing. The second halves go to the
  // end of the list, not next to their first halves.
  void MoveForInsertion(std::int64_t position, std::int64_t length);

  // The labels in `range` and the markers clipped to it, all moved by `offset`.
  Annotations Part(const CSection& range, std::int64_t offset) const;

  // Keeps the parts before `range`, then those behind it, which follow the frames that move up. A
  // marker around the range becomes two, and a backward range doubles the records inside it.
  // `document` is the document's length.
  void Delete(const CSection& range, std::int64_t document);
};

// The part of a marker that lies within `range`; nothing when that part is empty.
std::optional<CSection> ClipMarker(const CSection& marker, const CSection& range) noexcept;

}  // namespace marlinda
