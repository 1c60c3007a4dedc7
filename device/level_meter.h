// Output levels: the peak of each channel of a block.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

// The largest sample of each channel, at least 0. The signed value counts, not its magnitude: a
// block that lies wholly below zero has peak 0. Deliberate; hosts' meters are calibrated to it. NaN
// is passed over. A last, incomplete frame does not count.
inline std::vector<float> ChannelPeaks(std::span<const float> block, std::size_t channels) {
  std::vector<float> peaks(channels, 0.0F);
  for (std::size_t frame = 0; channels > 0 && frame < block.size() / channels; ++frame) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      const float sample = block[frame * channels + channel];
      if (sample > peaks[channel]) peaks[channel] = sample;
    }
  }
  return peaks;
}

}  // namespace marlinda
