// The picture of a waveform: one lane a channel, a time axis, labels and section markers.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "host/annotations.h"
#include "host/drawing.h"

namespace marlinda {

// Samples from here on are marked as clipped: between the two highest codes of 16 bits.
constexpr float kClipLevel = 0.99998F;

struct Waveform {
  // Columns of (minimum, maximum) pairs, one for each channel in turn; as many columns as the
  // picture is wide.
  std::span<const float> pairs;
  // Root mean squares, one for each channel of each column in turn; or none.
  std::span<const float> rms;
  // The frames themselves, interleaved, where they are fewer than columns: then they are drawn, and
  // not the pairs.
  std::span<const float> samples;
  int channels = 0;
  // The frames that the columns show; `end` is exclusive.
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::int32_t rate = 0;
  Annotations annotations;
};

// What a reader may choose.
struct PictureStyle {
  bool decibels = false;  // the height is the level from -60 dB at the centre to 0 dB
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

// The lowest picture whose lanes can be read.
int LeastHeight(int channels);

// Full scale fills a lane from edge to edge; what lies beyond is clipped and marked there. Names
// for which no room is left, in three rows at most, are left out, their lines stay.
Drawing DrawWaveform(const Waveform& waveform, const PictureStyle& style, int width, int height,
                     const ShapeText& shape);

// The step between two ticks of the time axis: the smallest of the usual ones (1, 2 and 5 with
// their tens below a second; seconds, minutes and hours as on a clock) that keeps them
// `least_pixels` apart and, as a part of `whole`, divides it. Without a whole every step does.
double TickStep(double seconds, int width, int least_pixels, double whole = 0);

// A time on the axis, with the decimals that the step needs: "0.25", "12", "3:05", "1:00:00".
std::string TickText(double seconds, double step);

}  // namespace marlinda
