// The progress bar of a long task.
#pragma once

#include <ostream>
#include <string>
#include <string_view>

namespace marlinda {

// "title [#####     ]  50 %"; a fraction outside 0 to 1, or none (NaN), is shown as the nearest
// end.
std::string ProgressLine(std::string_view title, double fraction);

// Draws the line on `out` again and again and wipes it at the end. Draws nothing when `out` is
// null, which is how a caller keeps it out of files and pipes.
class ProgressBar {
 public:
  ProgressBar(std::ostream* out, std::string title);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Draws only when the line changes.
  void Show(double fraction);

 private:
  std::ostream* out_;
  std::string title_;
  std::string shown_;
};

}  // namespace marlinda
