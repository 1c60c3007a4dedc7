// Converts the sample rate and channel count of a stream, block by block and without seams.
#pragma once

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

#include "converter/channel_map.h"
#include "converter/polyphase_filter.h"

namespace marlinda {

// The output is not delayed: output frame n has the time of input frame n * source rate / target
// rate. At the end of the stream, pass silence to get the last few hundred frames.
class StreamConverter {
 public:
  struct Format {
    std::int32_t rate = 0;
    std::int16_t channels = 0;
  };

  // Accepts rate ratios from 1/256 to 256. If the rates differ, the smaller of the two channel
  // counts must be at most 128.
  static bool CanConvert(const Format& source, const Format& target) noexcept {
    if (source.rate <= 0 || target.rate <= 0 || source.channels <= 0 || target.channels <= 0) {
      return false;
    }
    if (source.rate == target.rate) return true;
    const double ratio = RatioOf(source, target);
    return ratio <= kMaxRatio && ratio >= 1.0 / kMaxRatio &&
           std::min(source.channels, target.channels) <= kMaxResampledChannels;
  }

  // Throws std::invalid_argument if the formats cannot be converted, and std::bad_alloc.
  StreamConverter(const Format& source, const Format& target)
      : source_(CanConvert(source, target) ? source : throw std::invalid_argument("format")),
        map_(source.channels, target.channels),
        // Resampling is the slow step, so it runs on the smaller channel count.
        maps_first_(target.channels < source.channels),
        resampled_channels_(static_cast<std::size_t>(std::min(source.channels, target.channels))),
        ratio_(RatioOf(source, target)) {
    if (source.rate == target.rate) return;
    if (PolyphaseFilter::CanConvert(source.rate, target.rate)) {
      filter_.emplace(source.rate, target.rate, resampled_channels_);
      return;
    }
    int error = 0;
    resampler_.reset(src_new(SRC_SINC_BEST_QUALITY, static_cast<int>(resampled_channels_), &error));
    if (resampler_ == nullptr) throw std::bad_alloc();
  }

  // Accepts any number of samples, even a part of a frame. Appends the output that is ready. Throws
  // std::bad_alloc or, if libsamplerate fails, std::runtime_error.
  void Convert(std::span<const float> samples, std::vector<float>& output) {
    const auto channels = static_cast<std::size_t>(source_.channels);
    if (!partial_.empty()) {
      const std::size_t missing = std::min(channels - partial_.size(), samples.size());
      partial_.insert(partial_.end(), samples.begin(),
                      samples.begin() + static_cast<std::ptrdiff_t>(missing));
      samples = samples.subspan(missing);
      if (partial_.size() < channels) return;
      ConvertFrames(partial_, output);
    }
    const std::size_t whole = samples.size() / channels * channels;
    ConvertFrames(samples.first(whole), output);
    partial_.assign(samples.begin() + static_cast<std::ptrdiff_t>(whole), samples.end());
  }

 private:
  struct Closer {
    void operator()(SRC_STATE* state) const noexcept { src_delete(state); }
  };

  static constexpr double kMaxRatio = 256.0;
  static constexpr int kMaxResampledChannels = 128;
  // The most input frames per call of libsamplerate. This limits the size of the output buffer.
  static constexpr std::size_t kFramesPerPiece = 4096;

  static double RatioOf(const Format& source, const Format& target) {
    return static_cast<double>(target.rate) / static_cast<double>(source.rate);
  }

  void ConvertFrames(std::span<const float> frames, std::vector<float>& output) {
    if (!filter_ && resampler_ == nullptr) return map_.Apply(frames, output);
    mapped_.clear();
    if (maps_first_) {
      map_.Apply(frames, mapped_);
      Resample(mapped_, output);
    } else {
      Resample(frames, mapped_);
      map_.Apply(mapped_, output);
    }
  }

  void Resample(std::span<const float> frames, std::vector<float>& output) {
    if (filter_) return filter_->Process(frames, output);
    const auto room = static_cast<std::size_t>(std::ceil(kFramesPerPiece * ratio_)) + 64;
    SRC_DATA data = {};
    data.src_ratio = ratio_;
    while (!frames.empty()) {
      const std::size_t begin = output.size();
      output.resize(begin + room * resampled_channels_);
      data.data_in = frames.data();
      data.input_frames =
          static_cast<long>(std::min(frames.size() / resampled_channels_, kFramesPerPiece));
      data.data_out = output.data() + begin;
      data.output_frames = static_cast<long>(room);
      if (src_process(resampler_.get(), &data) != 0 ||
          (data.input_frames_used == 0 && data.output_frames_gen == 0)) {
        throw std::runtime_error("resampler");
      }
      output.resize(begin + static_cast<std::size_t>(data.output_frames_gen) * resampled_channels_);
      frames =
          frames.subspan(static_cast<std::size_t>(data.input_frames_used) * resampled_channels_);
    }
  }

  const Format source_;
  const ChannelMap map_;
  const bool maps_first_;
  const std::size_t resampled_channels_;
  const double ratio_;
  // At most one of these two exists. If the rates are equal, neither exists.
  std::optional<PolyphaseFilter> filter_;
  std::unique_ptr<SRC_STATE, Closer> resampler_;  // for ratios that the filter cannot convert
  std::vector<float> partial_;                    // the start of an incomplete frame
  std::vector<float> mapped_;
};

}  // namespace marlinda
