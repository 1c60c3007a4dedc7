// "marlinda play": plays an audio file.
#include <algorithm>
#include <chrono>

#include "host/commands/shared.h"
#include "host/progress.h"
#include "host/sound_devices.h"
#include "host/timecode.h"

namespace marlinda {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPlayHelp =
    "Times are seconds such as 1.5, times such as 1:02:03.5, or frames such as 66150f.\n"
    "Ctrl+C ends it.\n"
    "Example: marlinda play in.ogg --from 10 --to 12.5 --loop --channels 0";

struct PlayOptions {
  std::string input;
  std::string from;  // `from` and `to` may be empty
  std::string to;
  std::vector<int> channels;  // if empty, all
  std::optional<int> device;
  bool loop = false;
  bool json = false;
};

// The part of the file to play.
struct Section {
  FrameRange range;
  std::uint32_t mask = 0;
  bool loop = false;
};

class Player {
 public:
  Player(IEditedAudio* document, const AudioFormat& format, const Section& section)
      : document_(document), format_(format), section_(section), start_(Clock::now()) {
    Check(document_->Play(section.range.begin, section.range.end, section.mask,
                          section.loop ? VARIANT_TRUE : VARIANT_FALSE));
  }
  ~Player() { document_->StopPlay(); }
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  // Waits until playback ends and returns the end position. Throws if the user interrupts or the
  // device stops early. `importing` is true if the section is still being imported.
  std::int64_t Watch(const Source& source, bool importing, const DeviceChoice& device,
                     const Console& console) {
    constexpr DWORD kPollMilliseconds = 50;
    bool is_shorter = false;
    const auto note_import = [&] {
      const auto read = importing ? source.PollImport(console) : std::nullopt;
      if (!read) return;
      importing = false;
      is_shorter = *read < Length();
      if (is_shorter) section_.range.end = section_.range.begin + *read;
    };
    ProgressBar bar(console.Progress(), "Playing");
    __int64 position = section_.range.begin;
    for (;;) {
      VARIANT_BOOL playing = VARIANT_FALSE;
      __int64 now_at = 0;
      Check(document_->GetPlayStatus(&playing, &now_at));
      if (playing == VARIANT_FALSE) break;
      // At the end of a section that does not loop, the engine reports the section's start again.
      position = section_.loop ? now_at : std::max(position, now_at);
      if (console.Interrupted()) {
        throw HostError(ExitStatus::kInterrupted, source.file(),
                        "interrupted at " + FormatDuration(position, format_.rate));
      }
      note_import();
      if (is_shorter && position >= section_.range.end) break;
      bar.Show(
          TransportLine("Playing", position, section_.range.end, format_.rate, Levels()),
          static_cast<double>(position - section_.range.begin) / static_cast<double>(Length()));
      console.Wait(kPollMilliseconds);
    }
    // Waits for the end of the import, because a damaged file can shorten the section.
    for (note_import(); importing; note_import()) console.Wait(kPollMilliseconds);
    // If playing took less time than the audio lasts, the device did not play all of it.
    constexpr double kSlackSeconds = 0.5;
    const std::chrono::duration<double> took = Clock::now() - start_;
    const double length = static_cast<double>(Length()) / format_.rate;
    if (section_.loop || took.count() + kSlackSeconds < length) {
      throw DeviceLost(device, "playing ended at " + FormatDuration(position, format_.rate));
    }
    bar.Show(TransportLine("Playing", section_.range.end, section_.range.end, format_.rate, {}), 1);
    return section_.range.end;
  }

 private:
  std::int64_t Length() const { return section_.range.end - section_.range.begin; }

  std::vector<float> Levels() const {
    std::vector<float> levels(static_cast<std::size_t>(format_.channels));
    for (SHORT channel = 0; channel < format_.channels; ++channel) {
      document_->GetOutputLevel(channel, &levels[static_cast<std::size_t>(channel)]);
    }
    return levels;
  }

  IEditedAudio* document_;
  AudioFormat format_;
  Section section_;
  Clock::time_point start_;
};

// Returns a mask with a bit for each channel of the list, or with all bits if the list is empty.
std::uint32_t MaskOf(const std::vector<int>& list, int channels) {
  std::uint32_t mask = list.empty() ? 0xFFFFFFFFU : 0;
  for (const int channel : list) {
    if (channel >= channels) {
      throw std::invalid_argument("there is no channel " + std::to_string(channel) +
                                  ": the audio has " + std::to_string(channels) +
                                  ", numbered from 0");
    }
    mask |= std::uint32_t{1} << channel;
  }
  return mask;
}

void Play(const PlayOptions& options, const Console& console) {
  const TimeRange range = ParseFromTo(options.from, options.to);
  const auto device = DeviceChoice::OfOutputs(options.device);
  Source source(options.input);
  const auto expected = options.loop ? std::nullopt : source.Expected();
  ImportedAudio audio = expected ? *expected : source.Import(console);
  const Section section = {ResolveRange(range, audio.frames, audio.format.rate),
                           MaskOf(options.channels, audio.format.channels), options.loop};
  if (expected) audio = source.StartImport(section.range);

  const SHORT bits = ChooseOutputBits(device, audio.format);
  const auto document = NewDocument(audio.format, bits);
  Check(document->AppendSegment(audio.reader.Get(), 0, audio.frames));
  Check(document->SetPlaybackDevice(device.number()));
  const std::int64_t begin = section.range.begin;
  const std::int64_t end = Player(document.Get(), audio.format, section)
                               .Watch(source, expected.has_value(), device, console);
  if (options.json) {
    Json channels = Json::array();
    for (int channel = 0; channel < std::min<int>(audio.format.channels, 32); ++channel) {
      if ((section.mask >> channel & 1U) != 0) channels.push_back(channel);
    }
    console.Print(Serialize({{"input", options.input},
                             {"filter", source.filter().class_name},
                             {"device", OrNull(device.index())},
                             {"sample_rate", audio.format.rate},
                             {"channels", channels},
                             {"bits_per_sample", bits},
                             {"begin", begin},
                             {"end", end}}));
  } else {
    console.Print("played " + options.input + ": " + FormatDuration(begin, audio.format.rate) +
                  " to " + FormatDuration(end, audio.format.rate) + "\n");
  }
}

}  // namespace

void AddPlay(CLI::App& app, Console& console) {
  const auto [command, options] =
      AddCommand(app, console, "play", "Play an audio file", kPlayHelp, Play);
  command->add_option("IN", options->input, "Audio file to read")->required();
  AddFromTo(command, options->from, options->to);
  command->add_flag("--loop", options->loop, "Repeat until Ctrl+C");
  command
      ->add_option("--channels", options->channels,
                   "Channels to play, numbered from 0, such as 0,1 (all unless given)")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(CLI::Range(0, 31));
  AddDevice(command, options->device);
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
