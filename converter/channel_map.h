// Maps one channel count to another by the speaker positions of the usual layouts.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// For 1 to 8 channels the layouts are those of Windows: mono, stereo, stereo with centre, quad,
// 5.0, 5.1, 6.1, 7.1. A position that both layouts have keeps its level. Any other position goes to
// the nearest positions of the target, mostly at -3 dB: centre to left and right, surround to
// front. Stereo to mono takes both channels at one half. Low frequencies without a target channel
// are dropped. Mono goes to the centre or, without one, to left and right at full level. The result
// may exceed full scale. For other channel counts, channel n goes to channel n.
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
