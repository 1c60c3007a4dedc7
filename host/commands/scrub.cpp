#include "host/commands/scrub.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "host/commands/json.h"
#include "host/engine.h"
#include "host/progress.h"
#include "host/scrub_cursor.h"
#include "host/sound_devices.h"
#include "host/timecode.h"

namespace marlinda {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

HostError UsageError(const std::string& reason) {
  return {ExitStatus::kUsage, "", reason, "See \"marlinda scrub --help\"."};
}

// Scrubs a document while it lives.
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
  Scrubber(const Scrubber&) = delete;
  Scrubber& operator=(const Scrubber&) = delete;

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

  // Until Escape, Enter or Q is pressed.
  void FollowKeys() {
    constexpr DWORD kPollMilliseconds = 100;
    ScrubCursor cursor(audio_.frames, audio_.format.rate);
    MoveTo(0);
    for (;;) {
      ThrowIfEnded(cursor.position());
      const auto key = console_.ReadKey(kPollMilliseconds);
      if (!key) continue;
      if (*key == VK_ESCAPE || *key == VK_RETURN || *key == 'Q') return;
      if (const auto move = MoveOf(*key)) {
        cursor.Move(*move);
        MoveTo(cursor.position());
      }
    }
  }

 private:
  static std::optional<CursorMove> MoveOf(WORD key) {
    switch (key) {
      case VK_LEFT:
        return CursorMove::kBack;
      case VK_RIGHT:
        return CursorMove::kForward;
      case VK_DOWN:
        return CursorMove::kFarBack;
      case VK_UP:
        return CursorMove::kFarForward;
      case VK_HOME:
        return CursorMove::kStart;
      case VK_END:
        return CursorMove::kEnd;
      default:
        return std::nullopt;
    }
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

  // A lost device is closed by the engine, and this is how a document tells: only an open one
  // refuses to give the level of a channel that it does not have.
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

}  // namespace

void RunScrub(const ScrubOptions& options, const Console& console) {
  std::vector<Timecode> times;
  std::chrono::microseconds hold{};
  try {
    if (!options.at.empty()) times = ParseTimes(options.at);
    hold =
        std::chrono::microseconds(Timecode::Parse(options.hold).ToFrames(kMicrosecondsPerSecond));
  } catch (const std::invalid_argument& error) {
    throw UsageError(error.what());
  }
  if (times.empty() && !console.HasKeyboard()) {
    throw UsageError("without a terminal there are no arrow keys: give the positions with --at");
  }
  const auto device = DeviceChoice::OfOutputs(options.device);
  Source source(options.input);
  const ImportedAudio audio = source.Import(console);
  std::vector<std::int64_t> positions;
  try {
    for (const Timecode& time : times) {
      positions.push_back(ResolvePosition(time, audio.frames, audio.format.rate));
    }
  } catch (const std::invalid_argument& error) {
    throw UsageError(error.what());
  }

  const SHORT bits = ChooseOutputBits(device, audio.format);
  const auto document = CreateObject<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
  Check(document->SetFormat(audio.format.rate, audio.format.channels, bits));
  Check(document->AppendSegment(audio.reader.Get(), 0, audio.frames));
  Check(document->SetPlaybackDevice(device.number()));
  {
    Scrubber scrubber(document.Get(), audio, options.input, device, console);
    for (const std::int64_t position : positions) scrubber.Hold(position, hold);
    if (positions.empty()) scrubber.FollowKeys();
  }
  if (options.json) {
    console.Print(ToText(Json{{"input", options.input},
                              {"filter", source.filter().class_name},
                              {"device", OrNull(device.index())},
                              {"sample_rate", audio.format.rate},
                              {"positions", positions}}));
  } else {
    console.Print("scrubbed " + options.input + "\n");
  }
}

}  // namespace marlinda
