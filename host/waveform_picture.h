// The picture of a waveform: one lane a channel, a time axis, labels and section markers.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "host/annotations.h"
#include "host/picture.h"

namespace marlinda {

struct Waveform {
  // Columns of (minimum, maximum) pairs, one for each channel in turn; as many columns as the
  // picture is wide.
  std::span<const float> pairs;
  int channels = 0;
  // The frames that the columns show; `end` is exclusive.
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::int32_t rate = 0;
  Annotations annotations;
};

// Full scale fills a lane from edge to edge; what lies beyond is clipped there.
Picture DrawWaveform(const Waveform& waveform, int width, int height);

// The step between two ticks of the time axis: the smallest of the usual ones (1, 2 and 5 with
// their tens below a second; seconds, minutes and hours as on a clock) that keeps them
// `least_pixels` apart.
double TickStep(double seconds, int width, int least_pixels);

// A time on the axis, with the decimals that the step needs: "0.25", "12", "3:05", "1:00:00".
std::string TickText(double seconds, double step);

}  // namespace marlinda
