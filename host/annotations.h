// Labels and section markers of a file or document: positions in frames, names in UTF-8.
#pragma once

#include <vector>

#include "core/records.h"

namespace marlinda {

struct Annotations {
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;
};

}  // namespace marlinda
