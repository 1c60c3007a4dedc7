#include "host/progress.h"

#include <algorithm>
#include <cmath>

#include "host/timecode.h"

namespace marlinda {
namespace {

constexpr std::size_t kLineWidth = 79;
constexpr std::size_t kMinBar = 3;
constexpr std::size_t kMaxBar = 20;
constexpr float kLowestDecibels = -60.0F;

std::string LevelBar(float level, std::size_t width) {
  if (level >= 1.0F) return std::string(width - 1, '#') + "!";
  // Draws NaN as silence.
  if (!(level > 0.0F)) return std::string(width, ' ');
  const float share = 1.0F - 20.0F * std::log10(level) / kLowestDecibels;
  const auto filled = static_cast<std::size_t>(std::max(0.0F, share) * static_cast<float>(width));
  return std::string(filled, '#') + std::string(width - filled, ' ');
}

// NaN becomes 0.
double Clamped(double fraction) { return fraction > 0.0 ? std::min(fraction, 1.0) : 0.0; }

int Percent(double fraction) { return static_cast<int>(Clamped(fraction) * 100); }

}  // namespace

std::string ProgressLine(std::string_view title, double fraction) {
  constexpr int kWidth = 40;
  const double clamped = Clamped(fraction);
  const auto filled = static_cast<std::size_t>(clamped * kWidth);
  std::string number = std::to_string(Percent(fraction));
  number.insert(0, 3 - number.size(), ' ');
  return std::string(title) + " [" + std::string(filled, '#') + std::string(kWidth - filled, ' ') +
         "] " + number + " %";
}

StatusLine::~StatusLine() {
  if (shown_.empty()) return;
  *out_ << "\r" + std::string(shown_.size(), ' ') + "\r" << std::flush;
}

void StatusLine::Show(const std::string& line) {
  if (out_ == nullptr || line == shown_) return;
  // Spaces overwrite the end of a longer previous line.
  const std::size_t rest = shown_.size() > line.size() ? shown_.size() - line.size() : 0;
  *out_ << "\r" + line + std::string(rest, ' ') << std::flush;
  shown_ = line + std::string(rest, ' ');
}

void ProgressBar::Show(const std::string& text, double fraction) {
  line_.Show(text);
  if (lines_ == nullptr || Percent(fraction) == percent_) return;
  percent_ = Percent(fraction);
  *lines_ << "progress " + std::to_string(percent_) + " " + title_ + "\n" << std::flush;
}

std::string TransportLine(std::string_view title, std::int64_t position, std::int64_t length,
                          std::int32_t rate, std::span<const float> levels) {
  std::string line = std::string(title) + " " + FormatDuration(position, rate) + " / " +
                     FormatDuration(length, rate);
  if (levels.empty()) return line;
  const std::size_t room = kLineWidth - std::min(kLineWidth, line.size());
  const std::size_t share = room / levels.size();
  const std::size_t width = std::clamp(share, kMinBar + 3, kMaxBar + 3) - 3;
  for (const float level : levels) line += " [" + LevelBar(level, width) + "]";
  return line;
}

}  // namespace marlinda
