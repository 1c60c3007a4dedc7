// Progress of a command: one line of a terminal that is drawn again and again.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace marlinda {

// Draws a line of text over the last one and wipes it at the end. Draws nothing when `out` is null,
// which is how a caller keeps it out of files and pipes.
class StatusLine {
 public:
  explicit StatusLine(std::ostream* out) : out_(out) {}
  ~StatusLine();
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  // Draws only when the line changes. ASCII.
  void Show(const std::string& line);

 private:
  std::ostream* out_;
  std::string shown_;
};

// "title [#####     ]  50 %"; a fraction outside 0 to 1, or none (NaN), is shown as the nearest
// end.
std::string ProgressLine(std::string_view title, double fraction);

// Where progress goes.
struct ProgressOutput {
  std::ostream* terminal = nullptr;  // a line that is drawn again and again, for a person
  std::ostream* lines = nullptr;     // a line for each whole percent, for a program
};

// How far a long task is.
class ProgressBar {
 public:
  ProgressBar(const ProgressOutput& out, std::string title)
      : line_(out.terminal), lines_(out.lines), title_(std::move(title)) {}

  void Show(double fraction) { Show(ProgressLine(title_, fraction), fraction); }
  // With a text of the caller's for the terminal.
  void Show(const std::string& text, double fraction);

 private:
  StatusLine line_;
  std::ostream* lines_;
  std::string title_;
  int percent_ = -1;
};

// The line of play, scrub and record: "Playing 0:00:01.200 / 0:00:05.500 [######    ] [#### ]", a
// bar for each of the levels, which stretches from -60 dB to full scale and ends in "!" at full
// scale and above. Fits in 79 columns as long as the channels leave each bar three.
std::string TransportLine(std::string_view title, std::int64_t position, std::int64_t length,
                          std::int32_t rate, std::span<const float> levels);

}  // namespace marlinda
