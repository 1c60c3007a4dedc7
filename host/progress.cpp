#include "host/progress.h"

#include <algorithm>
#include <utility>

namespace marlinda {

std::string ProgressLine(std::string_view title, double fraction) {
  constexpr int kWidth = 40;
  // Written so that NaN becomes 0.
  const double clamped = fraction > 0.0 ? std::min(fraction, 1.0) : 0.0;
  const auto filled = static_cast<std::size_t>(clamped * kWidth);
  std::string number = std::to_string(static_cast<int>(clamped * 100));
  number.insert(0, 3 - number.size(), ' ');
  return std::string(title) + " [" + std::string(filled, '#') + std::string(kWidth - filled, ' ') +
         "] " + number + " %";
}

ProgressBar::ProgressBar(std::ostream* out, std::string title)
    : out_(out), title_(std::move(title)) {}

ProgressBar::~ProgressBar() {
  if (shown_.empty()) return;
  *out_ << "\r" + std::string(shown_.size(), ' ') + "\r" << std::flush;
}

void ProgressBar::Show(double fraction) {
  if (out_ == nullptr) return;
  std::string line = ProgressLine(title_, fraction);
  if (line == shown_) return;
  *out_ << "\r" + line << std::flush;
  shown_ = std::move(line);
}

}  // namespace marlinda
