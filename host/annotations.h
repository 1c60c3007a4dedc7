// Labels and section markers as the host passes them on: positions in frames, names in UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marlinda {

struct Label {
  std::int64_t position = 0;
  std::string name;
};

// A named range of frames; `end` is exclusive.
struct Marker {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::string name;
};

struct Annotations {
  std::vector<Label> labels;
  std::vector<Marker> markers;
};

}  // namespace marlinda
