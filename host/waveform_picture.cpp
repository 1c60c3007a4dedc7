#include "host/waveform_picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <vector>

namespace marlinda {
namespace {

struct Theme {
  Colour background, lane, section, wave, body, line, text, label, marker, clip;
};
constexpr Theme kLight = {{255, 255, 255}, {246, 248, 251}, {240, 180, 60}, {38, 92, 158},
                          {110, 160, 214}, {168, 184, 204}, {60, 66, 74},   {196, 48, 43},
                          {178, 120, 10},  {220, 20, 20}};
constexpr Theme kDark = {{24, 26, 30},    {34, 37, 43},  {150, 105, 20},  {96, 165, 236},
                         {142, 196, 250}, {84, 94, 108}, {200, 205, 212}, {255, 120, 110},
                         {240, 184, 70},  {255, 70, 70}};

constexpr int kGap = 4;       // pixels between lanes
constexpr int kTextRow = 15;  // height of one row of names above the lanes
constexpr int kMaxRows = 3;
constexpr int kAxis = 22;       // ticks and times below the lanes
constexpr int kTickSpace = 70;  // width of a time and its margin
constexpr int kMinorSpace = 8;  // minimum spacing of ticks without a time
constexpr int kLeastLane = 6;
constexpr double kFloor = -60;   // dB
constexpr double kDotSpace = 6;  // minimum spacing at which samples get a dot

const char* ChannelName(int channel, int channels) {
  constexpr std::array<const char*, 8> kSurround = {"FL", "FR", "FC", "LFE",
                                                    "BL", "BR", "SL", "SR"};
  if (channels == 2) return channel == 0 ? "L" : "R";
  const bool surround = channels == 6 || channels == 8;
  return surround ? kSurround.at(static_cast<std::size_t>(channel)) : "";
}

template <class Record, class Key>
std::vector<Record> Sorted(std::vector<Record> records, Key key) {
  std::ranges::stable_sort(records, {}, key);
  return records;
}

// The wave in columns one pixel wide. Extends each column until it meets the previous column.
struct Band {
  std::vector<Point> upper = {};
  std::vector<Point> lower = {};
  double last_top = 0;
  double last_bottom = 0;

  void Add(double x, double top, double bottom) {
    const bool first = upper.empty();
    const double joined_top = first ? top : std::min(top, last_bottom);
    const double joined_bottom = first ? bottom : std::max(bottom, last_top);
    upper.insert(upper.end(), {{x, joined_top}, {x + 1, joined_top}});
    lower.insert(lower.end(), {{x, joined_bottom}, {x + 1, joined_bottom}});
    last_top = top;
    last_bottom = bottom;
  }
  Outline Around() {
    upper.insert(upper.end(), lower.rbegin(), lower.rend());
    Outline outline;
    outline.AddPolygon(upper);
    return outline;
  }
};

// Lays out the picture and maps frames to pixels.
class Canvas {
 public:
  Canvas(const Waveform& waveform, const PictureStyle& style, int width, int height,
         const ShapeText& shape)
      : waveform_(waveform),
        style_(style),
        theme_(style.dark ? kDark : kLight),
        shape_(shape),
        drawing_(width, height, theme_.background) {
    PlaceNames();
    lanes_top_ = names_.empty() ? 0 : kTextRow * (1 + std::ranges::max(names_, {}, &Name::row).row);
    lanes_bottom_ = std::max(lanes_top_ + 1, height - kAxis);
  }

  Drawing Draw() {
    for (int channel = 0; channel < waveform_.channels; ++channel) DrawLane(channel);
    DrawAxis();
    for (const auto& [x, row, colour] : lines_) {
      const int top = std::min(kTextRow * row, lanes_top_);
      drawing_.FillRectangle(x, top, 1, lanes_bottom_ - top, colour, 0.8);
    }
    for (const Name& name : names_)
      DrawText(name.x, kTextRow * name.row + 11, name.text, name.colour);
    return std::move(drawing_);
  }

 private:
  struct Line {
    double x;
    int row;  // the name's row, where the line begins; kMaxRows if no name is shown
    Colour colour;
  };
  struct Name {
    double x;
    int row;
    ShapedText text;
    Colour colour;
  };

  double Seconds() const {
    return waveform_.rate > 0
               ? static_cast<double>(waveform_.end - waveform_.begin) / waveform_.rate
               : 0.0;
  }
  bool Shows(std::int64_t frame) const { return frame >= waveform_.begin && frame < waveform_.end; }
  double XOf(std::int64_t frame) const {
    const double share = static_cast<double>(frame - waveform_.begin) /
                         static_cast<double>(waveform_.end - waveform_.begin);
    return std::floor(std::clamp(share, 0.0, 1.0) * drawing_.width());
  }

  void DrawText(double x, double baseline, const ShapedText& text, Colour colour) {
    drawing_.Fill(text.outline, colour, 1, {x, baseline});
  }

  // Places a name right of its line, in the first row with room. Near the picture's right edge, the
  // name is left of its line. Returns the row, or kMaxRows if no row has room.
  int PlaceName(double line, const std::string& text, Colour colour) {
    ShapedText shaped = shape_(text);
    double x = line + 4;
    if (x + shaped.width > drawing_.width()) x = line - 4 - shaped.width;
    const int room = (drawing_.height() - LeastHeight(waveform_.channels)) / kTextRow;
    for (int row = 0; row < std::min(kMaxRows, room) && x >= 0; ++row) {
      const auto meets = [&](const Name& name) {
        return name.row == row && x < name.x + name.text.width + 6 && name.x < x + shaped.width + 6;
      };
      if (std::ranges::any_of(names_, meets)) continue;
      names_.push_back({x, row, std::move(shaped), colour});
      return row;
    }
    return kMaxRows;
  }

  void PlaceNames() {
    const auto place = [&](std::int64_t frame, const std::string& name, Colour colour) {
      const double x = XOf(frame);
      const int row = name.empty() ? kMaxRows : PlaceName(x, name, colour);
      if (Shows(frame)) lines_.push_back({x, row, colour});
    };
    const auto begin = [](const SectionMarker& marker) { return marker.section.begin; };
    for (const auto& [section, name] : Sorted(waveform_.annotations.markers, begin)) {
      if (section.end <= waveform_.begin || section.begin >= waveform_.end) continue;
      place(section.begin, name, theme_.marker);
      place(section.end, "", theme_.marker);
    }
    for (const Label& label : Sorted(waveform_.annotations.labels, &Label::position)) {
      if (Shows(label.position)) place(label.position, label.name, theme_.label);
    }
  }

  // The height of a sample in a lane: 1 at the top, -1 at the bottom.
  double LevelOf(float sample) const {
    const double size = std::min(std::abs(double{sample}), 1.0);
    const double level =
        style_.decibels ? std::max(0.0, 1 - 20 * std::log10(std::max(size, 1e-9)) / kFloor) : size;
    return std::copysign(level, sample);
  }

  double LaneTop(int channel) const {
    return lanes_top_ + std::floor(static_cast<double>(lanes_bottom_ - lanes_top_) * channel /
                                   waveform_.channels);
  }

  void DrawLane(int channel) {
    const double top = LaneTop(channel);
    const double height = std::max(1.0, LaneTop(channel + 1) - top - kGap);
    const double centre = std::floor(top + height / 2) + 0.5;  // so silence is one row of pixels
    const auto y_of = [&](float sample) { return centre - LevelOf(sample) * height / 2; };

    drawing_.FillRectangle(0, top, drawing_.width(), height, theme_.lane);
    // Draws the translucent sections one by one, so that overlaps stand out.
    for (const auto& [section, name] : waveform_.annotations.markers) {
      const double length = XOf(section.end) - XOf(section.begin);
      if (length > 0)
        drawing_.FillRectangle(XOf(section.begin), top, length, height, theme_.section, 0.2);
    }
    drawing_.FillRectangle(0, std::floor(centre), drawing_.width(), 1, theme_.line);
    if (waveform_.samples.empty()) {
      DrawColumns(channel, y_of, style_.wave.value_or(theme_.wave), top);
    } else {
      DrawSamples(channel, y_of, style_.wave.value_or(theme_.wave), top);
    }
    for (const float level : {0.1F, 0.01F}) {  // -20 and -40 dB
      if (!style_.decibels) break;
      for (const float side : {level, -level}) {
        drawing_.FillRectangle(0, std::floor(y_of(side)), drawing_.width(), 1, theme_.text, 0.3);
      }
      if (height < 6 * kTextSize) continue;
      const ShapedText text = shape_(level == 0.1F ? "-20 dB" : "-40 dB");
      DrawText(drawing_.width() - text.width - 4, y_of(level) - 2, text, theme_.text);
    }
    const std::string name = ChannelName(channel, waveform_.channels);
    if (!name.empty() && height >= 2 * kTextSize) {
      const ShapedText text = shape_(name);
      drawing_.FillRectangle(0, top, text.width + 6, kTextSize + 4, theme_.lane, 0.7);
      DrawText(3, top + kTextSize, text, theme_.text);
    }
  }

  template <class YOf>
  void DrawColumns(int channel, YOf y_of, Colour colour, double top) {
    const auto channels = static_cast<std::size_t>(waveform_.channels);
    const auto columns =
        std::min(static_cast<std::size_t>(drawing_.width()), waveform_.pairs.size() / 2 / channels);
    Band wave;
    Band body;
    Outline clipped;
    for (std::size_t column = 0; column < columns; ++column) {
      const std::size_t at = column * channels + static_cast<std::size_t>(channel);
      const float minimum = waveform_.pairs[2 * at];
      const float maximum = waveform_.pairs[2 * at + 1];
      const double x = static_cast<double>(column);
      // The band extends half a pixel beyond the extremes, so that silence is visible.
      wave.Add(x, y_of(maximum) - 0.5, y_of(minimum) + 0.5);
      if (maximum >= kClipLevel || minimum <= -kClipLevel) {
        clipped.AddPolygon({{x, top}, {x + 1, top}, {x + 1, top + 4}, {x, top + 4}});
      }
      if (at < waveform_.rms.size()) body.Add(x, y_of(waveform_.rms[at]), y_of(-waveform_.rms[at]));
    }
    drawing_.Fill(wave.Around(), colour);
    drawing_.Fill(body.Around(), theme_.body);
    drawing_.Fill(std::move(clipped), theme_.clip);
  }

  template <class YOf>
  void DrawSamples(int channel, YOf y_of, Colour wave, double top) {
    const auto channels = static_cast<std::size_t>(waveform_.channels);
    const std::size_t frames = waveform_.samples.size() / channels;
    const double space = drawing_.width() / static_cast<double>(frames);
    const auto sample_of = [&](std::size_t frame) {
      return waveform_.samples[frame * channels + static_cast<std::size_t>(channel)];
    };
    const auto point_of = [&](std::size_t frame) {
      return Point{static_cast<double>(frame) * space, y_of(sample_of(frame))};
    };
    Outline shape;
    Outline clipped;
    for (std::size_t frame = 0; frame < frames; ++frame) {
      const Point at = point_of(frame);
      if (frame + 1 < frames) shape.AddLine(at, point_of(frame + 1), 1.4);
      if (space >= kDotSpace) shape.AddLine({at.x - 2, at.y}, {at.x + 2, at.y}, 4);
      if (std::abs(sample_of(frame)) >= kClipLevel)
        clipped.AddLine({at.x - 2, top + 2}, {at.x + 2, top + 2}, 4);
    }
    drawing_.Fill(std::move(shape), wave);
    drawing_.Fill(std::move(clipped), theme_.clip);
  }

  void DrawAxis() {
    const double seconds = Seconds();
    if (seconds <= 0) return;
    const double first = static_cast<double>(waveform_.begin) / waveform_.rate;
    const double last = first + seconds;
    const double step = TickStep(seconds, drawing_.width(), kTickSpace);
    const double minor = TickStep(seconds, drawing_.width(), kMinorSpace, step);
    drawing_.FillRectangle(0, lanes_bottom_, drawing_.width(), 1, theme_.text);
    const char* const unit = last < 60 ? " s" : last < 3600 ? " min" : " h";
    const ShapedText end = shape_(TickText(last, std::min(step, 0.1)) + unit);
    const double end_at = drawing_.width() - end.width - 2;
    const double baseline = lanes_bottom_ + 18;
    if (end_at > 0) DrawText(end_at, baseline, end, theme_.text);

    const auto ticks = [&](double space, auto draw) {
      for (auto tick = std::llround(std::ceil(first / space - 1e-9));; ++tick) {
        const double time = static_cast<double>(tick) * space;
        if (time >= last) return;
        draw(std::floor((time - first) / seconds * drawing_.width()), time);
      }
    };
    ticks(minor,
          [&](double x, double) { drawing_.FillRectangle(x, lanes_bottom_, 1, 3, theme_.line); });
    ticks(step, [&](double x, double time) {
      drawing_.FillRectangle(x, lanes_bottom_, 1, 7, theme_.text);
      const ShapedText text = shape_(TickText(time, step));
      if (x + 3 + text.width + 8 < end_at) DrawText(x + 3, baseline, text, theme_.text);
    });
  }

  const Waveform& waveform_;
  const PictureStyle& style_;
  const Theme theme_;
  const ShapeText& shape_;
  Drawing drawing_;
  std::vector<Line> lines_;
  std::vector<Name> names_;
  int lanes_top_ = 0;
  int lanes_bottom_ = 0;
};

}  // namespace

int LeastHeight(int channels) { return kAxis + channels * (kLeastLane + kGap); }

Drawing DrawWaveform(const Waveform& waveform, const PictureStyle& style, int width, int height,
                     const ShapeText& shape) {
  return Canvas(waveform, style, width, height, shape).Draw();
}

double TickStep(double seconds, int width, int least_pixels, double whole) {
  constexpr std::array kSteps = {
      1e-6, 2e-6,  5e-6,  1e-5,  2e-5,  5e-5,   1e-4,   2e-4,   5e-4,    1e-3,   2e-3, 5e-3,
      1e-2, 2e-2,  5e-2,  0.1,   0.2,   0.5,    1.0,    2.0,    5.0,     10.0,   15.0, 30.0,
      60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0, 7200.0, 14400.0, 43200.0};
  const double least = seconds * least_pixels / width;
  for (const double step : kSteps) {
    if (step >= least && std::abs(std::remainder(whole, step)) < step * 1e-6) return step;
  }
  const double days = std::ceil(least / 86400.0);
  return std::max(whole, days * 86400.0);
}

std::string TickText(double seconds, double step) {
  const auto needed = static_cast<int>(std::ceil(-std::log10(step) - 1e-6));
  const int decimals = std::clamp(needed, 0, 6);
  // Rounds to the shown decimals before it splits the time, so that 59.9999 gives "1:00", not "60".
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
