// One record of the peak file.
#pragma once

namespace marlinda {

inline constexpr int kFramesPerPeak = 256;

// As stored in the peak file.
struct PeakRecord {
  float minimum;
  float maximum;
  friend bool operator==(const PeakRecord&, const PeakRecord&) = default;
};

}  // namespace marlinda
