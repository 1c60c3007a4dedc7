// One record of the peak file.
#pragma once

#include "core/constants.h"

namespace marlinda {

// As stored in the peak file.
struct PeakRecord {
  float minimum;
  float maximum;
  friend bool operator==(const PeakRecord&, const PeakRecord&) = default;
};

}  // namespace marlinda
