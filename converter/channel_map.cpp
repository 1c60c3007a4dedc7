#include "converter/channel_map.h"

#include <algorithm>
#include <array>
#include <numbers>

namespace marlinda {
namespace {

constexpr double kMinus3dB = 1.0 / std::numbers::sqrt2;

enum class Position { kFL, kFR, kFC, kLFE, kBL, kBR, kBC, kSL, kSR };

using Layout = std::span<const Position>;

// Returns an empty layout for channel counts other than 1 to 8.
Layout LayoutOf(int channels) {
  using enum Position;
  static constexpr std::array<Position, 1> kMono = {kFC};
  static constexpr std::array<Position, 2> kStereo = {kFL, kFR};
  static constexpr std::array<Position, 3> kThree = {kFL, kFR, kFC};
  static constexpr std::array<Position, 4> kQuad = {kFL, kFR, kBL, kBR};
  static constexpr std::array<Position, 5> kFive = {kFL, kFR, kFC, kBL, kBR};
  static constexpr std::array<Position, 6> kFivePointOne = {kFL, kFR, kFC, kLFE, kBL, kBR};
  static constexpr std::array<Position, 7> kSixPointOne = {kFL, kFR, kFC, kLFE, kBC, kSL, kSR};
  static constexpr std::array<Position, 8> kSevenPointOne = {kFL, kFR, kFC, kLFE,
                                                             kBL, kBR, kSL, kSR};
  static constexpr std::array<Layout, 9> kLayouts = {
      Layout(), kMono, kStereo, kThree, kQuad, kFive, kFivePointOne, kSixPointOne, kSevenPointOne};
  return channels >= 1 && channels <= 8 ? kLayouts[static_cast<std::size_t>(channels)] : Layout();
}

bool Has(Layout layout, Position position) { return std::ranges::count(layout, position) > 0; }

// Adds the gains of one source channel to the gain table.
class Route {
 public:
  Route(Layout source, Layout target, std::span<double> gains, std::size_t stride)
      : source_(source), target_(target), gains_(gains), stride_(stride) {}

  void Send(Position position, double gain) {
    using enum Position;
    const auto found = std::ranges::find(target_, position);
    if (found != target_.end()) {
      gains_[static_cast<std::size_t>(found - target_.begin()) * stride_] += gain;
      return;
    }
    switch (position) {
      case kFC:
        SendToBoth(kFL, kFR, source_.size() == 1 ? gain : gain * kMinus3dB);
        return;
      case kFL:
      case kFR:
        return Send(kFC, gain / 2);  // the target is mono
      case kBL:
      case kSL:
        return SendSurround(position == kBL ? kSL : kBL, kFL, gain);
      case kBR:
      case kSR:
        return SendSurround(position == kBR ? kSR : kBR, kFR, gain);
      case kBC:
        if (Has(target_, kBL)) return SendToBoth(kBL, kBR, gain * kMinus3dB);
        return SendToBoth(kFL, kFR, gain * kMinus3dB * kMinus3dB);
      case kLFE:
        return;
    }
  }

 private:
  void SendToBoth(Position left, Position right, double gain) {
    Send(left, gain);
    Send(right, gain);
  }

  // Sends a surround channel that the target lacks to `other`, its counterpart in the other
  // surround pair. Uses full level, or -3 dB if the source has `other` too. If the target lacks
  // `other` as well, sends to `front` at -3 dB.
  void SendSurround(Position other, Position front, double gain) {
    if (!Has(target_, other)) return Send(front, gain * kMinus3dB);
    Send(other, Has(source_, other) ? gain * kMinus3dB : gain);
  }

  Layout source_;
  Layout target_;
  std::span<double> gains_;  // the source channel's column
  std::size_t stride_;
};

}  // namespace

ChannelMap::ChannelMap(int source_channels, int target_channels)
    : source_channels_(static_cast<std::size_t>(source_channels)),
      target_channels_(static_cast<std::size_t>(target_channels)),
      is_identity_(source_channels == target_channels) {
  gains_.resize(source_channels_ * target_channels_);
  const Layout source = LayoutOf(source_channels);
  const Layout target = LayoutOf(target_channels);
  if (is_identity_ || source.empty() || target.empty()) {
    for (std::size_t i = 0; i < std::min(source_channels_, target_channels_); ++i) {
      gains_[i * source_channels_ + i] = 1.0;
    }
    return;
  }
  for (std::size_t from = 0; from < source_channels_; ++from) {
    Route(source, target, std::span(gains_).subspan(from), source_channels_)
        .Send(source[from], 1.0);
  }
}

void ChannelMap::Apply(std::span<const float> source, std::vector<float>& target) const {
  if (is_identity_) {
    target.insert(target.end(), source.begin(), source.end());
    return;
  }
  target.reserve(target.size() + source.size() / source_channels_ * target_channels_);
  for (; source.size() >= source_channels_; source = source.subspan(source_channels_)) {
    for (std::size_t to = 0; to < target_channels_; ++to) {
      const double* const row = &gains_[to * source_channels_];
      double sum = 0.0;
      for (std::size_t from = 0; from < source_channels_; ++from) {
        sum += row[from] * static_cast<double>(source[from]);
      }
      target.push_back(static_cast<float>(sum));
    }
  }
}

}  // namespace marlinda
