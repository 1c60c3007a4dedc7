// From one number of channels to another, by what each channel of a usual layout stands for.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// Layouts are those that Windows gives 1 to 8 channels: mono; left, right; with centre; quad; 5
// without low frequencies; 5.1; 6.1; 7.1. A position that both layouts have keeps its level. One
// that the target lacks goes, at -3 dB, to the nearest that it has: centre to left and right,
// surround to front, and so on; stereo to mono takes both at one half. Low frequencies are not
// folded in. Mono goes to the centre, and without one to left and right at full level. Nothing is
// scaled to avoid values above full scale. Between other numbers of channels, channel n goes to
// channel n.
class ChannelMap {
 public:
  ChannelMap(int source_channels, int target_channels);

  // Whole frames in, as many frames out, added at the end of `target`.
  void Apply(std::span<const float> source, std::vector<float>& target) const;

 private:
  std::size_t source_channels_;
  std::size_t target_channels_;
  std::vector<double> gains_;  // one row for each target channel
  bool is_identity_;
};

}  // namespace marlinda
