// Progress of a command, drawn repeatedly on one line of the terminal.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace marlinda {

// Draws each line over the previous line. The destructor clears the line. Pass null as `out` to
// draw nothing, for example if the output is a file or a pipe.
class StatusLine {
 public:
  explicit StatusLine(std::ostream* out) : out_(out) {}
  ~StatusLine();
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  // Draws only if the line has changed. `line` must be ASCII.
  void Show(const std::string& line);

 private:
  std::ostream* out_;
  std::string shown_;
};

// Returns "title [#####     ]  50 %". A fraction outside 0 to 1 is clamped; NaN counts as 0.
std::string ProgressLine(std::string_view title, double fraction);

// Destinations of the progress. Null means no output.
struct ProgressOutput {
  std::ostream* terminal = nullptr;  // one line, redrawn for a person
  std::ostream* lines = nullptr;     // a line for each percent, for a program
};

// Shows the progress of a long task.
class ProgressBar {
 public:
  ProgressBar(const ProgressOutput& out, std::string title)
      : line_(out.terminal), lines_(out.lines), title_(std::move(title)) {}

  void Show(double fraction) { Show(ProgressLine(title_, fraction), fraction); }
  // Shows `text` on the terminal instead of the bar.
  void Show(const std::string& text, double fraction);

 private:
  StatusLine line_;
  std::ostream* lines_;
  std::string title_;
  int percent_ = -1;
};

// The line of play, scrub and record: "Playing 0:00:01.200 / 0:00:05.500 [######    ] [#### ]",
// with a bar for each level. A bar covers -60 dB to full scale and ends in "!" at full scale and
// above. Each bar has at least three columns, even if the line then exceeds 79 columns.
std::string TransportLine(std::string_view title, std::int64_t position, std::int64_t length,
                          std::int32_t rate, std::span<const float> levels);

}  // namespace marlinda
