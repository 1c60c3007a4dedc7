// Converts audio to another number of channels, by the speaker positions of the usual layouts.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// 1 to 8 channels have the layouts of Windows: mono, stereo, stereo with centre, quad, 5.0, 5.1,
// 6.1 and 7.1. A channel keeps its level if the target has its position. Any other channel goes
// to the nearest positions of the target, mostly at -3 dB: centre to left and right, surround to
// front. Stereo becomes mono as half the sum of both channels. A low-frequency channel is dropped
// if the target has none. Mono goes to the centre or, without a centre, to left and right at full
// level. The sums may exceed full scale. If source or target has more than 8 channels, channel n
// goes to channel n.
class ChannelMap {
 public:
  ChannelMap(int source_channels, int target_channels);

  // Maps whole frames and appends the same number of frames to `target`.
  void Apply(std::span<const float> source, std::vector<float>& target) const;

 private:
  std::size_t source_channels_;
  std::size_t target_channels_;
  std::vector<double> gains_;  // one row for each target channel
  bool is_identity_;
};

}  // namespace marlinda
