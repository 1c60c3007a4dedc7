// Times as the editor writes them, the ticks of the ruler, and room for the names of annotations.
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

// Labelled ticks at round times or frames, at least `spacing` pixels apart, and minor ticks between
// them. `rate` is positive.
std::vector<Tick> RulerTicks(const View& view, std::int32_t rate, RulerUnit unit, int spacing);

// "H:MM:SS.mmm" or a number of frames.
std::string FormatPosition(std::int64_t frame, std::int32_t rate, RulerUnit unit);

// Seconds such as "1.5", in frames; negative when the text is not a positive number up to a day.
std::int64_t ParseSeconds(std::string_view text, std::int32_t rate);

// The width for each name that begins at one of `xs`, which ascend: up to the next begin or
// `right`. 0 where less than `least` is left, so that no name covers another.
std::vector<int> RoomForNames(std::span<const int> xs, int right, int least);

}  // namespace marlinda::editor
