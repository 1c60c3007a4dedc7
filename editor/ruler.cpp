#include "editor/ruler.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace marlinda::editor {
namespace {

// The distance between labelled ticks is `count` / `divisor` seconds or `count` frames. Minor ticks
// divide this distance into `minors` parts.
struct Step {
  std::int64_t count;
  std::int64_t divisor;
  int minors;
};

constexpr Step kTimeSteps[] = {
    {1, 100000, 5}, {2, 100000, 4}, {5, 100000, 5}, {1, 10000, 5}, {2, 10000, 4}, {5, 10000, 5},
    {1, 1000, 5},   {2, 1000, 4},   {5, 1000, 5},   {1, 100, 5},   {2, 100, 4},   {5, 100, 5},
    {1, 10, 5},     {2, 10, 4},     {5, 10, 5},     {1, 1, 5},     {2, 1, 4},     {5, 1, 5},
    {10, 1, 5},     {15, 1, 3},     {30, 1, 3},     {60, 1, 4},    {120, 1, 4},   {300, 1, 5},
    {600, 1, 5},    {900, 1, 3},    {1800, 1, 3},   {3600, 1, 4},  {7200, 1, 4},  {18000, 1, 5},
    {36000, 1, 5},  {86400, 1, 4}};

Step StepOfFrames(double least) {
  for (std::int64_t power = 1;; power *= 10) {
    for (const std::int64_t digit : {1, 2, 5}) {
      const std::int64_t step = digit * power;
      if (static_cast<double>(step) >= least) {
        return {step, 1, step == 1 ? 1 : digit == 2 ? (power == 1 ? 2 : 4) : 5};
      }
    }
  }
}

Step StepOfTime(double least_seconds) {
  for (const Step& step : kTimeSteps) {
    const double seconds = static_cast<double>(step.count) / static_cast<double>(step.divisor);
    if (seconds >= least_seconds) return step;
  }
  return *std::rbegin(kTimeSteps);
}

// Writes as many decimals as the step needs.
std::string TickText(std::int64_t units, const Step& step) {
  const std::int64_t seconds = units / step.divisor;
  char text[48];
  if (seconds >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02d:%02d", static_cast<long long>(seconds / 3600),
                  static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  } else {
    std::snprintf(text, sizeof text, "%d:%02d", static_cast<int>(seconds / 60),
                  static_cast<int>(seconds % 60));
  }
  if (step.divisor == 1) return text;
  // Adding the divisor keeps leading zeros. `substr` removes the digit in front of them.
  const std::string decimals = std::to_string(step.divisor + units % step.divisor).substr(1);
  return std::string(text) + "." + decimals;
}

}  // namespace

std::vector<Tick> RulerTicks(const View& view, std::int32_t rate, RulerUnit unit, int spacing) {
  const Zoom& zoom = view.zoom();
  const double least = static_cast<double>(spacing) * static_cast<double>(zoom.frames) /
                       static_cast<double>(zoom.pixels);
  const bool frames = unit == RulerUnit::kFrames;
  const Step step = frames ? StepOfFrames(least) : StepOfTime(least / rate);
  // The number of frames between two minor ticks, which may be fractional.
  const double minor = static_cast<double>(step.count) * (frames ? 1.0 : rate) /
                       static_cast<double>(step.divisor * step.minors);
  const Range visible = view.visible();
  std::vector<Tick> ticks;
  // Starts with the last labelled tick before the window, because its label may be visible.
  auto index =
      static_cast<std::int64_t>(static_cast<double>(visible.begin) / (minor * step.minors));
  for (index *= step.minors;; ++index) {
    const double frame = static_cast<double>(index) * minor;
    if (frame > static_cast<double>(visible.end)) return ticks;
    // Rounds only the pixel, because at close zooms a tick may lie between two frames.
    const double pixel =
        frame * static_cast<double>(zoom.pixels) / static_cast<double>(zoom.frames);
    Tick tick{static_cast<int>(pixel - static_cast<double>(view.origin()) + 0.5), ""};
    if (index % step.minors == 0) {
      const std::int64_t units = index / step.minors * step.count;
      tick.text = frames ? std::to_string(units) : TickText(units, step);
    }
    ticks.push_back(std::move(tick));
  }
}

std::string FormatPosition(std::int64_t frame, std::int32_t rate, RulerUnit unit) {
  if (unit == RulerUnit::kFrames || rate <= 0) return std::to_string(frame);
  const std::int64_t seconds = frame / rate;
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02d:%02d.%03d", static_cast<long long>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60),
                static_cast<int>(frame % rate * 1000 / rate));
  return text;
}

std::int64_t ParseSeconds(std::string_view text, std::int32_t rate) {
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  constexpr double kDay = 86400;
  if (error != std::errc() || end != text.data() + text.size() || !(seconds > 0) ||
      seconds > kDay) {
    return -1;
  }
  return static_cast<std::int64_t>(seconds * rate + 0.5);
}

std::vector<int> RoomForNames(std::span<const int> xs, int right, int least) {
  std::vector<int> room(xs.size());
  for (std::size_t i = 0; i < xs.size(); ++i) {
    const int width = (i + 1 < xs.size() ? std::min(xs[i + 1], right) : right) - xs[i];
    room[i] = width < least ? 0 : width;
  }
  return room;
}

}  // namespace marlinda::editor
