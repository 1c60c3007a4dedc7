// Converts a stream of interleaved samples to another sample rate and number of channels, block by
// block and without seams.
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

// Output frame n stands for the instant of input frame n * source rate / target rate: there is no
// delay. The last few hundred frames come once enough input has followed them; silence does.
class StreamConverter {
 public:
  struct Format {
    std::int32_t rate = 0;
    std::int16_t channels = 0;
  };

  // Rates of up to 256 times each other, and up to 128 channels where rates differ.
  static bool CanConvert(const Format& source, const Format& target) noexcept;

  // Throws std::invalid_argument when the formats cannot be converted, std::bad_alloc.
  StreamConverter(const Format& source, const Format& target);

  // Takes samples; a frame may be spread over calls. Adds what is ready to `output`. Throws
  // std::bad_alloc.
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
  // One of them, or none where the rates are the same.
  std::optional<PolyphaseFilter> filter_;
  std::unique_ptr<SRC_STATE_tag, Closer> resampler_;  // for ratios that the filter cannot convert
  std::vector<float> partial_;                        // the beginning of a frame
  std::vector<float> mapped_;
};

}  // namespace marlinda
