#include "converter/polyphase_filter.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

#include "core/samples/cpu_level.h"

namespace marlinda {
namespace {

// kHalfTaps is half the filter length in frames of the lower rate. kBeta shapes a Kaiser window
// with side lobes of -150 dB. The transition band is then 0.088 of the Nyquist frequency wide, with
// kCutOff in its middle.
constexpr std::size_t kHalfTaps = 112;
constexpr double kBeta = 0.1102 * (150.0 - 8.7);
constexpr double kCutOff = 1.0 - 0.088 / 2;
constexpr std::size_t kMaxTableTaps = std::size_t{1} << 20;

struct Ratio {
  Ratio(std::int32_t source_rate, std::int32_t target_rate) noexcept
      : source(static_cast<std::size_t>(source_rate / std::gcd(source_rate, target_rate))),
        target(static_cast<std::size_t>(target_rate / std::gcd(source_rate, target_rate))) {}

  // Downsampling needs more taps, because the filter length is counted in frames of the lower rate.
  std::size_t Taps() const noexcept {
    const std::size_t half = (kHalfTaps * std::max(source, target) + target - 1) / target;
    return (2 * half + kTapsPerStep - 1) / kTapsPerStep * kTapsPerStep;
  }

  std::size_t source;
  std::size_t target;
};

FilterKernel ChooseKernel() noexcept {
  switch (CurrentCpuLevel()) {
    case CpuLevel::kAvx2:
      return Avx2Filter;
    case CpuLevel::kSse2:
      return Sse2Filter;
    default:
      return ScalarFilter;
  }
}

// The modified Bessel function of order 0, computed as a power series.
double Bessel(double x) noexcept {
  double term = 1.0;
  double sum = 1.0;
  for (int k = 1; term > sum * 1e-17; ++k) {
    term *= x / (2 * k) * (x / (2 * k));
    sum += term;
  }
  return sum;
}

// The right half of the impulse response, with `target` values per input frame.
std::vector<double> ImpulseResponse(const Ratio& ratio) {
  const auto target = static_cast<double>(ratio.target);
  const double cut_off =
      kCutOff * std::min(1.0, target / static_cast<double>(ratio.source)) * std::numbers::pi;
  std::vector<double> response(ratio.Taps() / 2 * ratio.target + 1);
  const auto end = static_cast<double>(response.size() - 1);
  for (std::size_t i = 0; i < response.size(); ++i) {
    const double x = static_cast<double>(i) / end;
    const double t = cut_off * static_cast<double>(i) / target;
    response[i] = Bessel(kBeta * std::sqrt(1.0 - x * x)) * (i == 0 ? 1.0 : std::sin(t) / t);
  }
  return response;
}

}  // namespace

bool PolyphaseFilter::CanConvert(std::int32_t source_rate, std::int32_t target_rate) noexcept {
  const Ratio ratio(source_rate, target_rate);
  // The first comparison ensures that the products in the second cannot overflow.
  return std::max(ratio.source, ratio.target) <= kMaxTableTaps &&
         ratio.Taps() * ratio.target <= kMaxTableTaps;
}

PolyphaseFilter::PolyphaseFilter(std::int32_t source_rate, std::int32_t target_rate,
                                 std::size_t channels)
    : channels_(channels),
      source_(Ratio(source_rate, target_rate).source),
      target_(Ratio(source_rate, target_rate).target),
      taps_(Ratio(source_rate, target_rate).Taps()),
      filter_(ChooseKernel()),
      table_(taps_ / 8 * target_),
      room_(2 * taps_ + 4096),
      history_(room_ * channels),
      // Begins with silence, so that the first output frame has the time of the first input frame.
      held_(taps_ / 2 - 1) {
  const std::vector<double> response = ImpulseResponse(Ratio(source_rate, target_rate));
  std::vector<double> row(taps_);
  for (std::size_t i = 0; i < target_; ++i) {
    const std::size_t phase = i * source_ % target_;
    for (std::size_t tap = 0; tap < taps_; ++tap) {
      // The positions of the tap and of the response's middle. An input frame is target_ units
      // long. The response is symmetric, so `response` holds only its right half.
      const std::size_t at = (tap + 1) * target_;
      const std::size_t middle = taps_ / 2 * target_ + phase;
      row[tap] = response[at > middle ? at - middle : middle - at];
    }
    // Scales the taps of each phase to a sum of 1, so that a constant signal keeps its level.
    const double scale = 1.0 / std::accumulate(row.begin(), row.end(), 0.0);
    for (std::size_t tap = 0; tap < taps_; ++tap) {
      table_[(i * taps_ + tap) / 8].taps[tap % 8] = static_cast<float>(row[tap] * scale);
    }
  }
}

void PolyphaseFilter::Process(std::span<const float> frames, std::vector<float>& output) {
  while (!frames.empty()) {
    const std::size_t taken = std::min(frames.size(), (room_ - held_) * channels_);
    TakeIn(frames.first(taken));
    frames = frames.subspan(taken);
    const std::size_t size = output.size();
    output.resize(size + ReadyFrames() * channels_);
    Filter(std::span(output).subspan(size));
    if (held_ < room_) continue;
    for (std::size_t channel = 0; channel < channels_; ++channel) {
      const auto first = history_.begin() + static_cast<std::ptrdiff_t>(channel * room_);
      std::copy(first + static_cast<std::ptrdiff_t>(begin_),
                first + static_cast<std::ptrdiff_t>(held_), first);
    }
    held_ -= begin_;
    begin_ = 0;
  }
}

std::size_t PolyphaseFilter::ReadyFrames() const noexcept {
  if (held_ < begin_ + taps_) return 0;
  return ((held_ - begin_ - taps_ + 1) * target_ - 1 - phase_) / source_ + 1;
}

void PolyphaseFilter::TakeIn(std::span<const float> frames) noexcept {
  const std::size_t count = frames.size() / channels_;
  for (std::size_t channel = 0; channel < channels_; ++channel) {
    float* const to = &history_[channel * room_ + held_];
    for (std::size_t i = 0; i < count; ++i) to[i] = frames[i * channels_ + channel];
  }
  held_ += count;
}

void PolyphaseFilter::Filter(std::span<float> output) noexcept {
  for (; !output.empty(); output = output.subspan(channels_)) {
    filter_(table_[row_ * taps_ / 8].taps, taps_, &history_[begin_], room_, channels_,
            output.data());
    row_ = row_ + 1 == target_ ? 0 : row_ + 1;
    phase_ += source_;
    begin_ += phase_ / target_;
    phase_ %= target_;
  }
}

}  // namespace marlinda
