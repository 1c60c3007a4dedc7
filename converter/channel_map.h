// Maps one channel count to another by the speaker positions of the usual layouts.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// Layouts are those of Windows for 1 to 8 channels: mono; left, right; with centre; quad; 5 without
// low frequencies; 5.1; 6.1; 7.1. A position that both layouts have keeps its level. A position
// that the target lacks goes at -3 dB to the nearest positions it has: centre to left and right,
// surround to front, and so on. Stereo to mono takes both channels at one half. Low frequencies are
// not folded in. Mono goes to the centre or, without one, to left and right at full level. Nothing
// is scaled to avoid values above full scale. For other channel counts, channel n goes to channel
// n.
class ChannelMap {
 public:
  ChannelMap(int source_channels, int target_channels);

  // Maps whole frames and appends as many frames to `target`.
  void Apply(std::span<const float> source, std::vector<float>& target) const;

 private:
  std::size_t source_channels_;
  std::size_t target_channels_;
  std::vector<double> gains_;  // one row for each target channel
  bool is_identity_;
};

}  // namespace marlinda
