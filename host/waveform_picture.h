// Draws a waveform: one lane for each channel, a time axis, labels and section markers.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "host/annotations.h"
#include "host/drawing.h"

namespace marlinda {

// Samples of this magnitude and above are marked as clipped. The value lies between the two highest
// 16-bit codes.
constexpr float kClipLevel = 0.99998F;

struct Waveform {
  // One (minimum, maximum) pair for each channel of each column. Columns are one pixel wide and
  // fill the picture.
  std::span<const float> pairs;
  // One root mean square for each channel of each column. May be empty.
  std::span<const float> rms;
  // Interleaved frames, drawn instead of `pairs`. Empty if there are too many frames to draw.
  std::span<const float> samples;
  int channels = 0;
  // The frames that the columns show; `end` is exclusive.
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::int32_t rate = 0;
  Annotations annotations;
};

struct PictureStyle {
  bool decibels = false;  // height shows the level, -60 dB (centre) to 0 dB
  bool dark = false;
  std::optional<Colour> wave;
};

// A line of text whose baseline begins at (0, 0).
struct ShapedText {
  Outline outline;
  double width = 0;
};
using ShapeText = std::function<ShapedText(const std::string& text)>;
constexpr double kTextSize = 12;  // pixels from line to line

// The minimum height at which the lanes are legible.
int LeastHeight(int channels);

// Full scale fills a lane. Samples beyond full scale are clipped and marked. Names take at most
// three rows. If a name does not fit, only its line is drawn.
Drawing DrawWaveform(const Waveform& waveform, const PictureStyle& style, int width, int height,
                     const ShapeText& shape);

// Returns the smallest usual step that puts ticks at least `least_pixels` apart and, if `whole` is
// given, divides `whole`. Below a second, usual steps are 1, 2 and 5 times a power of ten. From a
// second on, usual steps are round numbers of seconds, minutes, hours or days.
double TickStep(double seconds, int width, int least_pixels, double whole = 0);

// Returns a time for the axis, with the decimals that the step needs: "0.25", "12", "3:05",
// "1:00:00".
std::string TickText(double seconds, double step);

}  // namespace marlinda
