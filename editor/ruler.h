// Formats times, places the ruler's ticks, and computes the width for each annotation's name.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "editor/view.h"

namespace marlinda::editor {

enum class RulerUnit { kTime, kFrames };

struct Tick {
  int x = 0;
  std::string text;  // empty: a minor tick
};

// Returns labelled ticks at round times or frames, at least `spacing` pixels apart, and minor ticks
// between them. `rate` is positive.
std::vector<Tick> RulerTicks(const View& view, std::int32_t rate, RulerUnit unit, int spacing);

// Returns "H:MM:SS.mmm" or a number of frames.
std::string FormatPosition(std::int64_t frame, std::int32_t rate, RulerUnit unit);

// Converts seconds such as "1.5" to frames. Returns a negative number if the text is not a positive
// number of at most one day.
std::int64_t ParseSeconds(std::string_view text, std::int32_t rate);

// Returns the width for each name. Name i begins at xs[i] and ends before the next name or at
// `right`. The positions `xs` are ascending. A width below `least` becomes 0, which hides the name.
std::vector<int> RoomForNames(std::span<const int> xs, int right, int least);

}  // namespace marlinda::editor
