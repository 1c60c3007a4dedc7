// "marlinda peaks": writes the peaks of an audio file for web players, in version 2 of the waveform
// data format of audiowaveform
// (https://github.com/bbc/audiowaveform/blob/master/doc/DataFormat.md).
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "host/commands/shared.h"
#include "host/file_name.h"

namespace marlinda {
namespace {

constexpr const char* kPeaksHelp =
    "Writes the minimum and maximum of each channel in every N frames, as 16-bit codes or those\n"
    "divided by 256, in the format of audiowaveform, version 2.\n"
    "Example: marlinda peaks in.ogg out.json --samples-per-pixel 512";

struct PeaksOptions {
  std::string input;
  std::string output;
  int samples_per_pixel = 256;
  int bits = 16;
};

// Collects one (minimum, maximum) pair for each channel of each group of frames.
class Extremes {
 public:
  Extremes(std::size_t channels, int frames) : channels_(channels), frames_(frames) {}

  void Add(std::span<const float> samples) {
    for (std::size_t i = 0; i < samples.size(); i += channels_) {
      if (frame_ == 0) {
        for (std::size_t channel = 0; channel < channels_; ++channel) {
          codes_.insert(codes_.end(), {INT16_MAX, INT16_MIN});
        }
      }
      std::int16_t* pair = &codes_[codes_.size() - 2 * channels_];
      for (std::size_t channel = 0; channel < channels_; ++channel, pair += 2) {
        const double sample = std::clamp(samples[i + channel] * 32767.0, -32768.0, 32767.0);
        const auto code = static_cast<std::int16_t>(std::lround(sample));
        pair[0] = std::min(pair[0], code);
        pair[1] = std::max(pair[1], code);
      }
      frame_ = (frame_ + 1) % frames_;
    }
  }

  const std::vector<std::int16_t>& codes() const { return codes_; }

 private:
  const std::size_t channels_;
  const int frames_;
  int frame_ = 0;
  std::vector<std::int16_t> codes_;
};

void AppendBytes(std::uint32_t value, int count, std::string& bytes) {
  for (int i = 0; i < count; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFFU);
}

void Peaks(const PeaksOptions& options, const Console& console) {
  const bool to_output = options.output == "-";
  const std::string kind = to_output ? "json" : ExtensionOf(options.output);
  if (kind != "json" && kind != "dat") {
    throw UsageError("peaks", "peaks are written as .json or .dat, or to -", options.output);
  }
  if (!to_output) RequireWritablePlace(options.output, {options.input});
  Source source(options.input);
  std::optional<Extremes> extremes;
  const ImportedAudio audio = source.Stream(
      [&](const AudioFormat& format, auto samples) {
        if (!extremes)
          extremes.emplace(static_cast<std::size_t>(format.channels), options.samples_per_pixel);
        extremes->Add(samples);
      },
      console);
  const int divisor = options.bits == 8 ? 256 : 1;
  const std::size_t length =
      extremes->codes().size() / 2 / static_cast<std::size_t>(audio.format.channels);
  std::string content;
  if (kind == "dat") {
    const std::uint32_t eight_bits = options.bits == 8 ? 1 : 0;
    for (const auto value :
         {std::uint32_t{2}, eight_bits, static_cast<std::uint32_t>(audio.format.rate),
          static_cast<std::uint32_t>(options.samples_per_pixel), static_cast<std::uint32_t>(length),
          static_cast<std::uint32_t>(audio.format.channels)}) {
      AppendBytes(value, 4, content);
    }
    for (const int code : extremes->codes()) {
      AppendBytes(static_cast<std::uint32_t>(code / divisor), options.bits / 8, content);
    }
  } else {
    content = Json{
        {"version", 2},
        {"channels", audio.format.channels},
        {"sample_rate", audio.format.rate},
        {"samples_per_pixel", options.samples_per_pixel},
        {"bits", options.bits},
        {"length",
         length}}.dump();
    content.back() = ',';
    content += "\"data\":[";
    for (const int code : extremes->codes()) content += std::to_string(code / divisor) + ",";
    content.back() = ']';
    content += "}\n";
  }
  const Console::Finishing finishing;
  if (to_output) {
    console.Print(content);
  } else {
    WriteWholeFile(options.output, content);
  }
}

}  // namespace

void AddPeaks(CLI::App& app, Console& console) {
  const auto [command, options] = AddCommand(
      app, console, "peaks", "Write the peaks of an audio file as data", kPeaksHelp, Peaks);
  command->add_option("IN", options->input, "Audio file to read")->required();
  command
      ->add_option("OUT.json|OUT.dat", options->output,
                   "File to write; an existing one is replaced; - writes JSON to standard output")
      ->required();
  command
      ->add_option("--samples-per-pixel", options->samples_per_pixel,
                   "Frames per pair of minimum and maximum (256 unless given)")
      ->option_text("N")
      ->check(CLI::Range(2, 1'000'000'000));
  command->add_option("--bits", options->bits, "Bits of a peak (16 unless given)")
      ->option_text("8|16")
      ->check(CLI::IsMember({8, 16}));
  AddProgress(command, console);
}

}  // namespace marlinda
