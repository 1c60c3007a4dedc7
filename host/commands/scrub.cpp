// "marlinda scrub": plays an audio file around positions from a list or from the arrow keys.
#include <algorithm>
#include <chrono>

#include "host/commands/shared.h"
#include "host/progress.h"
#include "host/sound_devices.h"
#include "host/timecode.h"

namespace marlinda {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kScrubHelp =
    "Without --at, keys move the position: left and right by a tenth of a second, down and up by\n"
    "a second, Home and End to the start and the end. Escape, Enter or Q quits.\n"
    "Example: marlinda scrub in.ogg --at 1,1.1,1.2,5 --hold 0.25";

struct ScrubOptions {
  std::string input;
  std::string at;            // comma-separated; if empty, keys set the position
  std::string hold = "0.5";  // time at each position
  std::optional<int> device;
  bool json = false;
};

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

// Scrubs a document during the object's lifetime.
class Scrubber {
 public:
  Scrubber(IEditedAudio* document, const ImportedAudio& audio, const std::string& file,
           const DeviceChoice& device, const Console& console)
      : document_(document),
        scrub_(Query<IScrubSupport>(document)),
        audio_(audio),
        file_(file),
        device_(device),
        console_(console),
        line_(console.Progress().terminal) {
    Check(scrub_->StartScrub());
  }
  ~Scrubber() { scrub_->StopScrub(); }

  void Hold(std::int64_t position, std::chrono::microseconds time) {
    MoveTo(position);
    constexpr std::chrono::milliseconds kPoll(50);
    for (const auto end = Clock::now() + time;;) {
      ThrowIfEnded(position);
      const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      if (rest.count() <= 0) return;
      console_.Wait(static_cast<DWORD>(std::min(rest, kPoll).count()));
    }
  }

  // Returns when Escape, Enter or Q is pressed.
  void FollowKeys() {
    constexpr DWORD kPollMilliseconds = 100;
    std::int64_t position = 0;
    MoveTo(position);
    for (;;) {
      ThrowIfEnded(position);
      const auto key = console_.ReadKey(kPollMilliseconds);
      if (!key) continue;
      if (*key == VK_ESCAPE || *key == VK_RETURN || *key == 'Q') return;
      if (const auto step = StepOf(*key)) {
        position = std::clamp(position + *step, std::int64_t{0}, audio_.frames);
        MoveTo(position);
      }
    }
  }

 private:
  // Returns the frames by which a key moves the position. The caller limits the new position.
  std::optional<std::int64_t> StepOf(WORD key) const {
    const std::int64_t rate = audio_.format.rate;
    // Move at least one frame, so that every key has an effect.
    const std::int64_t tenth = std::max<std::int64_t>(1, rate / 10);
    const std::pair<WORD, std::int64_t> steps[] = {
        {VK_LEFT, -tenth}, {VK_RIGHT, tenth},         {VK_DOWN, -rate},
        {VK_UP, rate},     {VK_HOME, -audio_.frames}, {VK_END, audio_.frames}};
    const auto* const step = std::ranges::find(steps, key, &std::pair<WORD, std::int64_t>::first);
    if (step == std::end(steps)) return std::nullopt;
    return step->second;
  }

  void MoveTo(std::int64_t position) {
    Check(scrub_->SetScrubPosition(position));
    line_.Show(TransportLine("Scrubbing", position, audio_.frames, audio_.format.rate, {}));
  }

  void ThrowIfEnded(std::int64_t position) const {
    const std::string place = FormatDuration(position, audio_.format.rate);
    if (console_.Interrupted()) {
      throw HostError(ExitStatus::kInterrupted, file_, "interrupted at " + place);
    }
    if (!DeviceIsOpen()) throw DeviceLost(device_, "it stopped playing at " + place);
  }

  // The engine closes a lost device. A document shows this only in GetOutputLevel: for a channel
  // that the audio lacks, the call fails while the device is open and succeeds while it is closed.
  bool DeviceIsOpen() const {
    float level = 0;
    return FAILED(document_->GetOutputLevel(audio_.format.channels, &level));
  }

  IEditedAudio* document_;
  ComPtr<IScrubSupport> scrub_;
  const ImportedAudio& audio_;
  const std::string& file_;
  const DeviceChoice& device_;
  const Console& console_;
  StatusLine line_;
};

// Converts the times of --at to frames of the audio.
std::vector<std::int64_t> ResolveAt(const ScrubOptions& options, const ImportedAudio& audio) {
  std::vector<std::int64_t> positions;
  const auto resolve = [&](std::string_view text) {
    for (const Timecode& time : ParseTimes(text)) {
      positions.push_back(ResolvePosition(time, audio.frames, audio.format.rate));
    }
  };
  if (!options.at.empty()) ForOption("--at " + options.at, resolve, options.at);
  return positions;
}

void Scrub(const ScrubOptions& options, const Console& console) {
  if (!options.at.empty()) ForOption("--at", ParseTimes, options.at);
  const std::chrono::microseconds hold(
      ForOption("--hold", Timecode::Parse, options.hold).ToFrames(kMicrosecondsPerSecond));
  if (options.at.empty() && !console.HasKeyboard()) {
    throw UsageError("scrub", "arrow keys need a terminal: give the positions with --at");
  }
  const auto device = DeviceChoice::OfOutputs(options.device);
  Source source(options.input);
  const auto expected = options.at.empty() ? std::nullopt : source.Expected();
  std::vector<FrameRange> parts;
  if (expected) {
    // Scrubbing plays a tenth of a second at each position, so a margin of one second is ample.
    const LONG margin = expected->format.rate;
    for (const std::int64_t position : ResolveAt(options, *expected)) {
      parts.push_back({std::max<std::int64_t>(position - margin, 0),
                       std::min<std::int64_t>(position + margin, expected->frames)});
    }
  }
  const ImportedAudio audio =
      expected ? source.ImportParts(std::move(parts), console) : source.Import(console);
  const std::vector<std::int64_t> positions = ResolveAt(options, audio);

  const SHORT bits = ChooseOutputBits(device, audio.format);
  const auto document = NewDocument(audio.format, bits);
  Check(document->AppendSegment(audio.reader.Get(), 0, audio.frames));
  Check(document->SetPlaybackDevice(device.number()));
  {
    Scrubber scrubber(document.Get(), audio, options.input, device, console);
    for (const std::int64_t position : positions) scrubber.Hold(position, hold);
    if (positions.empty()) scrubber.FollowKeys();
  }
  if (options.json) {
    console.Print(Serialize(Json{{"input", options.input},
                                 {"filter", source.filter().class_name},
                                 {"device", OrNull(device.index())},
                                 {"sample_rate", audio.format.rate},
                                 {"positions", positions}}));
  } else {
    console.Print("scrubbed " + options.input + "\n");
  }
}

}  // namespace

void AddScrub(CLI::App& app, Console& console) {
  const auto [command, options] = AddCommand(
      app, console, "scrub", "Hear an audio file at a moving position", kScrubHelp, Scrub);
  command->add_option("IN", options->input, "Audio file to read")->required();
  command->add_option("--at", options->at, "Positions to hear in sequence")
      ->option_text("TIME,TIME,...");
  command->add_option("--hold", options->hold, "Time to stay at each (0.5 unless given)")
      ->option_text("TIME")
      ->needs("--at");
  AddDevice(command, options->device);
  AddJson(command, options->json);
}

}  // namespace marlinda
