#include "host/waveform_picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace marlinda {
namespace {

constexpr Colour kBackground{255, 255, 255};
constexpr Colour kLane{246, 248, 251};
constexpr Colour kMarkedLane{255, 243, 214};
constexpr Colour kWave{38, 92, 158};
constexpr Colour kCentre{168, 184, 204};
constexpr Colour kText{60, 66, 74};
constexpr Colour kLabel{196, 48, 43};
constexpr Colour kMarker{178, 120, 10};

constexpr int kGap = 4;         // between lanes
constexpr int kTextRow = 14;    // one row of names above the lanes
constexpr int kAxis = 20;       // ticks and times below them
constexpr int kTickSpace = 70;  // a time and room beside it

// Where things go, and how frames become pixels.
class Canvas {
 public:
  Canvas(const Waveform& waveform, int width, int height)
      : waveform_(waveform),
        picture_(width, height, kBackground),
        lanes_top_(HeaderHeight()),
        lanes_bottom_(std::max(lanes_top_ + 1, height - kAxis)) {}

  Picture Draw() {
    for (int channel = 0; channel < waveform_.channels; ++channel) DrawLaneBackground(channel);
    for (int channel = 0; channel < waveform_.channels; ++channel) DrawLane(channel);
    DrawAxis();
    DrawMarkers();
    DrawLabels();
    return std::move(picture_);
  }

 private:
  int HeaderHeight() const {
    const auto& annotations = waveform_.annotations;
    return (annotations.markers.empty() ? 0 : kTextRow) +
           (annotations.labels.empty() ? 0 : kTextRow);
  }

  double Seconds() const {
    return waveform_.rate > 0
               ? static_cast<double>(waveform_.end - waveform_.begin) / waveform_.rate
               : 0.0;
  }

  bool Shows(std::int64_t frame) const { return frame >= waveform_.begin && frame < waveform_.end; }

  int XOf(std::int64_t frame) const {
    const double share = static_cast<double>(frame - waveform_.begin) /
                         static_cast<double>(waveform_.end - waveform_.begin);
    return static_cast<int>(std::clamp(share, 0.0, 1.0) * picture_.width());
  }

  int LaneTop(int channel) const {
    const int span = lanes_bottom_ - lanes_top_;
    return lanes_top_ + static_cast<int>(std::int64_t{span} * channel / waveform_.channels);
  }
  int LaneHeight(int channel) const {
    return std::max(1, LaneTop(channel + 1) - LaneTop(channel) - kGap);
  }

  void DrawLaneBackground(int channel) {
    picture_.Fill(0, LaneTop(channel), picture_.width(), LaneHeight(channel), kLane);
    for (const auto& [section, name] : waveform_.annotations.markers) {
      const int left = XOf(section.begin);
      picture_.Fill(left, LaneTop(channel), XOf(section.end) - left, LaneHeight(channel),
                    kMarkedLane);
    }
  }

  void DrawLane(int channel) {
    const int top = LaneTop(channel);
    const int height = LaneHeight(channel);
    const auto y_of = [&](float sample) {
      const float level = std::clamp(sample, -1.0F, 1.0F);
      return top +
             static_cast<int>(std::lround((1.0F - level) / 2.0F * static_cast<float>(height - 1)));
    };
    const auto channels = static_cast<std::size_t>(waveform_.channels);
    int last_upper = y_of(0.0F);
    int last_lower = last_upper;
    picture_.Fill(0, last_upper, picture_.width(), 1, kCentre);
    for (int column = 0; column < picture_.width(); ++column) {
      const std::size_t pair =
          2 * (static_cast<std::size_t>(column) * channels + static_cast<std::size_t>(channel));
      if (pair + 1 >= waveform_.pairs.size()) break;
      const float minimum = waveform_.pairs[pair];
      const float maximum = waveform_.pairs[pair + 1];
      // A column without samples, where a sequence of peaks begins or ends.
      if (!(minimum <= maximum)) continue;
      int upper = y_of(maximum);
      int lower = y_of(minimum);
      // A step between two columns is drawn as a line, not as a gap.
      if (column > 0) {
        upper = std::min(upper, last_lower);
        lower = std::max(lower, last_upper);
      }
      picture_.Fill(column, upper, 1, lower - upper + 1, kWave);
      last_upper = y_of(maximum);
      last_lower = y_of(minimum);
    }
  }

  void DrawAxis() {
    const double seconds = Seconds();
    if (seconds <= 0) return;
    const double first = static_cast<double>(waveform_.begin) / waveform_.rate;
    const double step = TickStep(seconds, picture_.width(), kTickSpace);
    picture_.Fill(0, lanes_bottom_, picture_.width(), 1, kText);
    for (auto tick = std::llround(std::ceil(first / step - 1e-9));; ++tick) {
      const double time = static_cast<double>(tick) * step;
      if (time >= first + seconds) break;
      const auto x = static_cast<int>((time - first) / seconds * picture_.width());
      picture_.Fill(x, lanes_bottom_, 1, 5, kText);
      picture_.DrawText(x + 3, lanes_bottom_ + 5, TickText(time, step), kText);
    }
  }

  // Names that would run into each other are left out; their lines stay.
  void DrawName(int x, int y, const std::string& name, Colour colour, int& free_from) {
    if (x + 3 < free_from) return;
    picture_.DrawText(x + 3, y, name, colour);
    free_from = x + 3 + TextWidth(name) + 6;
  }

  void DrawMarkers() {
    int free_from = 0;
    const auto begin = [](const SectionMarker& marker) { return marker.section.begin; };
    for (const auto& [section, name] : Sorted(waveform_.annotations.markers, begin)) {
      if (section.end <= waveform_.begin || section.begin >= waveform_.end) continue;
      for (const std::int64_t edge : {section.begin, section.end}) {
        if (Shows(edge)) picture_.Fill(XOf(edge), 0, 1, lanes_bottom_, kMarker);
      }
      DrawName(XOf(section.begin), 2, name, kMarker, free_from);
    }
  }

  void DrawLabels() {
    const int y = waveform_.annotations.markers.empty() ? 2 : kTextRow + 2;
    int free_from = 0;
    for (const Label& label : Sorted(waveform_.annotations.labels, &Label::position)) {
      if (!Shows(label.position)) continue;
      picture_.Fill(XOf(label.position), y, 1, lanes_bottom_ - y, kLabel);
      DrawName(XOf(label.position), y, label.name, kLabel, free_from);
    }
  }

  template <class Record, class Key>
  static std::vector<Record> Sorted(std::vector<Record> records, Key key) {
    std::ranges::stable_sort(records, {}, key);
    return records;
  }

  const Waveform& waveform_;
  Picture picture_;
  int lanes_top_;
  int lanes_bottom_;
};

}  // namespace

Picture DrawWaveform(const Waveform& waveform, int width, int height) {
  return Canvas(waveform, width, height).Draw();
}

double TickStep(double seconds, int width, int least_pixels) {
  constexpr std::array kClock = {1.0,   2.0,   5.0,   10.0,   15.0,   30.0,   60.0,    120.0,
                                 300.0, 600.0, 900.0, 1800.0, 3600.0, 7200.0, 14400.0, 43200.0};
  const double least = seconds * least_pixels / width;
  for (const double power : {1e-6, 1e-5, 1e-4, 1e-3, 1e-2, 1e-1}) {
    for (const double step : {power, 2 * power, 5 * power}) {
      if (step >= least) return step;
    }
  }
  for (const double step : kClock) {
    if (step >= least) return step;
  }
  const double days = std::ceil(least / 86400.0);
  return days * 86400.0;
}

std::string TickText(double seconds, double step) {
  const auto needed = static_cast<int>(std::ceil(-std::log10(step) - 1e-6));
  const int decimals = std::clamp(needed, 0, 6);
  // Rounded to what is shown, so that 59.9999 does not read as "0:60".
  const double scale = std::pow(10.0, decimals);
  const auto units = static_cast<long long>(std::llround(seconds * scale));
  const auto whole = units / static_cast<long long>(scale);
  const double rest = static_cast<double>(units) / scale - static_cast<double>(whole - whole % 60);
  char text[64];
  const int digits = decimals > 0 ? decimals + 3 : 2;
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%0*.*f", whole / 3600, whole / 60 % 60, digits,
                  decimals, rest);
  } else if (whole >= 60) {
    std::snprintf(text, sizeof text, "%lld:%0*.*f", whole / 60, digits, decimals, rest);
  } else {
    std::snprintf(text, sizeof text, "%.*f", decimals, rest);
  }
  return text;
}

}  // namespace marlinda
