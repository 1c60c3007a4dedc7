// "marlinda stats": reports the levels and loudness of an audio file.
#include <ebur128.h>

#include <algorithm>
#include <cmath>

#include "core/handle.h"
#include "host/commands/shared.h"
#include "host/timecode.h"
#include "host/waveform_picture.h"

namespace marlinda {
namespace {

constexpr const char* kStatsHelp =
    "Levels are in dB relative to full scale (dBFS), true peaks in dBTP, loudness by EBU R 128.\n"
    "A sample of 16-bit full scale or above is clipped; one below -60 dBFS is silent.\n"
    "Example: marlinda stats in.wav --json";

constexpr float kSilence = 0.001F;

struct LoudnessTraits {
  using Raw = ebur128_state*;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { ebur128_destroy(&raw); }
};

struct ChannelLevels {
  double peak = 0;
  double sum = 0;
  double squares = 0;
  std::int64_t clipped = 0;
};

class Meter {
 public:
  explicit Meter(const AudioFormat& format)
      : channels_(static_cast<std::size_t>(format.channels)),
        loudness_(ebur128_init(static_cast<unsigned>(format.channels),
                               static_cast<unsigned long>(format.rate),
                               EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK)) {
    if (!loudness_) throw std::bad_alloc();
    if (format.channels == 8) {
      // By default, the library leaves the side channels of 7.1 out of the loudness.
      ebur128_set_channel(loudness_.get(), 6, EBUR128_Mp090);
      ebur128_set_channel(loudness_.get(), 7, EBUR128_Mm090);
    }
  }

  void Add(std::span<const float> samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const float size = std::abs(samples[i]);
      ChannelLevels& channel = channels_[i % channels_.size()];
      channel.peak = std::max<double>(channel.peak, size);
      channel.sum += samples[i];
      channel.squares += double{samples[i]} * samples[i];
      if (size >= kClipLevel) ++channel.clipped;
      if (size < kSilence) continue;
      last_sound_ = frames_ + static_cast<std::int64_t>(i / channels_.size());
      if (first_sound_ < 0) first_sound_ = last_sound_;
    }
    const std::size_t frames = samples.size() / channels_.size();
    frames_ += static_cast<std::int64_t>(frames);
    if (ebur128_add_frames_float(loudness_.get(), samples.data(), frames) != EBUR128_SUCCESS)
      throw std::bad_alloc();
  }

  Json Report() const {
    Json channels = Json::array();
    ChannelLevels all;
    double true_peak = 0;
    for (std::size_t i = 0; i < channels_.size(); ++i) {
      const ChannelLevels& each = channels_[i];
      double peak = 0;
      ebur128_true_peak(loudness_.get(), static_cast<unsigned>(i), &peak);
      channels.push_back(ToJson(each, peak, static_cast<double>(frames_)));
      all = {std::max(all.peak, each.peak), all.sum + each.sum, all.squares + each.squares,
             all.clipped + each.clipped};
      true_peak = std::max(true_peak, peak);
    }
    double loudness = -HUGE_VAL;
    double range = 0;
    ebur128_loudness_global(loudness_.get(), &loudness);
    ebur128_loudness_range(loudness_.get(), &range);
    Json report = ToJson(all, true_peak,
                         static_cast<double>(frames_) * static_cast<double>(channels_.size()));
    report["integrated_loudness_lufs"] = std::isfinite(loudness) ? Json(loudness) : Json();
    report["loudness_range_lu"] = range;
    report["silent_frames_at_start"] = first_sound_ < 0 ? frames_ : first_sound_;
    report["silent_frames_at_end"] = frames_ - 1 - last_sound_;
    report["channel_levels"] = channels;
    return report;
  }

 private:
  static Json Decibels(double level) { return level > 0 ? Json(20 * std::log10(level)) : Json(); }
  static Json ToJson(const ChannelLevels& levels, double true_peak, double samples) {
    return {{"peak_dbfs", Decibels(levels.peak)},
            {"true_peak_dbtp", Decibels(true_peak)},
            {"rms_dbfs", Decibels(std::sqrt(levels.squares / samples))},
            {"dc_offset", levels.sum / samples},
            {"clipped_samples", levels.clipped}};
  }

  std::vector<ChannelLevels> channels_;
  Handle<LoudnessTraits> loudness_;
  std::int64_t frames_ = 0;
  std::int64_t first_sound_ = -1;
  std::int64_t last_sound_ = -1;
};

// Returns a line such as "peak            -1.02 dBFS". The level of silence is "-inf".
std::string Line(const char* name, const Json& value, const char* format) {
  char text[64];
  std::snprintf(text, sizeof text, format, value.is_null() ? -HUGE_VAL : value.get<double>());
  return name + std::string(18 - std::string_view(name).size(), ' ') + text + "\n";
}

std::string ToText(const Json& report, const std::string& file, const ImportedAudio& audio) {
  const auto duration = [&](const char* key) {
    return FormatDuration(report[key].get<std::int64_t>(), audio.format.rate);
  };
  std::string text = DescribeFile(file, audio.frames, audio.format, 0);
  const auto levels = [&](const Json& each) {
    text += Line("peak", each["peak_dbfs"], "%.2f dBFS") +
            Line("true peak", each["true_peak_dbtp"], "%.2f dBTP") +
            Line("RMS", each["rms_dbfs"], "%.2f dBFS") +
            Line("DC offset", each["dc_offset"], "%.6f") +
            Line("clipped samples", each["clipped_samples"], "%.0f");
  };
  levels(report);
  text += Line("loudness", report["integrated_loudness_lufs"], "%.1f LUFS") +
          Line("loudness range", report["loudness_range_lu"], "%.1f LU");
  text += "silence at start  " + duration("silent_frames_at_start") + "\n";
  text += "silence at end    " + duration("silent_frames_at_end") + "\n";
  const Json& channels = report["channel_levels"];
  for (std::size_t i = 0; i < channels.size() && channels.size() > 1; ++i) {
    text += "channel " + std::to_string(i) + "\n";
    levels(channels[i]);
  }
  return text;
}

}  // namespace

void AddStats(CLI::App& app, Console& console) {
  struct Options {
    std::string input;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  const auto run = [options, &console] {
    Source source(options->input);
    std::optional<Meter> meter;
    const ImportedAudio audio = source.Stream(
        [&](const AudioFormat& format, auto samples) {
          if (!meter) meter.emplace(format);
          meter->Add(samples);
        },
        console);
    Json report = {{"input", options->input},
                   {"sample_rate", audio.format.rate},
                   {"channels", audio.format.channels},
                   {"frames", audio.frames}};
    report.update(meter->Report());
    console.Print(options->json ? Serialize(report) : ToText(report, options->input, audio));
  };
  CLI::App* command =
      AddCommand(app, "stats", "Measure levels and loudness of an audio file", kStatsHelp, run);
  command->add_option("IN", options->input, "Audio file to read")->required();
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
