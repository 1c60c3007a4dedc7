// Converts the sample rate and channel count of a stream, block by block and without seams.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "converter/channel_map.h"
#include "converter/polyphase_filter.h"

struct SRC_STATE_tag;

namespace marlinda {

// The output is not delayed: output frame n has the time of input frame n * source rate / target
// rate. At the end of the stream, pass silence to get the last few hundred frames.
class StreamConverter {
 public:
  struct Format {
    std::int32_t rate = 0;
    std::int16_t channels = 0;
  };

  // Accepts rate ratios from 1/256 to 256. If the rates differ, source or target must have at most
  // 128 channels.
  static bool CanConvert(const Format& source, const Format& target) noexcept;

  // Throws std::invalid_argument if the formats cannot be converted, and std::bad_alloc.
  StreamConverter(const Format& source, const Format& target);

  // Takes any number of samples: a frame may be split between calls. Appends the output that is
  // ready. Throws std::bad_alloc.
  void Convert(std::span<const float> samples, std::vector<float>& output);

 private:
  struct Closer {
    void operator()(SRC_STATE_tag* state) const noexcept;
  };

  void ConvertFrames(std::span<const float> frames, std::vector<float>& output);
  void Resample(std::span<const float> frames, std::vector<float>& output);

  const Format source_;
  const ChannelMap map_;
  const bool maps_first_;
  const std::size_t resampled_channels_;
  const double ratio_;
  // At most one of these two exists. If the rates are equal, neither exists.
  std::optional<PolyphaseFilter> filter_;
  std::unique_ptr<SRC_STATE_tag, Closer> resampler_;  // for ratios that the filter cannot convert
  std::vector<float> partial_;                        // the start of an incomplete frame
  std::vector<float> mapped_;
};

}  // namespace marlinda
