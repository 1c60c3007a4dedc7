#include "host/commands/record.h"

#include <filesystem>
#include <stdexcept>

#include "core/stall_watch.h"
#include "host/commands/json.h"
#include "host/engine.h"
#include "host/file_name.h"
#include "host/progress.h"
#include "host/recorder.h"
#include "host/sound_devices.h"
#include "host/timecode.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

HostError UsageError(const std::string& reason) {
  return {ExitStatus::kUsage, "", reason, "See \"marlinda record --help\"."};
}

// Why a recording ended before its time; nothing when it did not.
using Shortfall = std::optional<HostError>;

Shortfall Record(ComPtr<IAudioReader> grabber, IAudioPool* pool, const AudioFormat& format,
                 std::int64_t frames, const DeviceChoice& device, const Console& console) {
  constexpr DWORD kPollMilliseconds = 50;
  Recorder recorder(std::move(grabber), Query<IAudioWriter>(pool), format, frames);
  ProgressBar bar(console.Progress(), "Recording");
  StallWatch watch;
  while (recorder.IsRunning()) {
    if (console.Interrupted()) {
      recorder.Stop();
      return HostError(ExitStatus::kInterrupted, "", "interrupted");
    }
    const auto recorded = static_cast<std::uint64_t>(recorder.recorded());
    if (watch.Look(recorded, StallWatch::Clock::now()) > StallWatch::kPatience) {
      recorder.Stop();
      return DeviceLost(device, "it stopped delivering audio");
    }
    bar.Show(
        TransportLine("Recording", recorder.recorded(), frames, format.rate, recorder.Levels()),
        static_cast<double>(recorded) / static_cast<double>(frames));
    console.Wait(kPollMilliseconds);
  }
  const HRESULT hr = recorder.Stop();
  bar.Show(TransportLine("Recording", recorder.recorded(), frames, format.rate, recorder.Levels()),
           static_cast<double>(recorder.recorded()) / static_cast<double>(frames));
  if (FAILED(hr)) return Explain(hr, kTemporaryFolder, ExitStatus::kOutput);
  return std::nullopt;
}

struct SavedTake {
  std::string file;
  WaveFileFacts facts;
};

// Writes the take, and when its own place fails, where there is another disk perhaps: a take cannot
// be had a second time.
SavedTake Save(IAudioReader* take, const RecordOptions& options, const Console& console) {
  try {
    return {options.output, WaveExport(options.output, "").Run(take, options.bits, console)};
  } catch (const HostError& error) {
    if (error.status() != ExitStatus::kOutput) throw;
    const std::string spare = Narrow((std::filesystem::temp_directory_path() /
                                      ("take-" + std::to_string(GetCurrentProcessId()) + ".wav"))
                                         .wstring());
    console.Tell(error.what());
    WaveExport(spare, "").Run(take, options.bits, console);
    throw HostError(error.status(), options.output, "the take was saved as " + spare + " instead");
  }
}

}  // namespace

void RunRecord(const RecordOptions& options, const Console& console) {
  const AudioFormat format = {options.rate, static_cast<SHORT>(options.channels)};
  std::int64_t frames = 0;
  try {
    frames = Timecode::Parse(options.seconds).ToFrames(options.rate);
  } catch (const std::invalid_argument& error) {
    throw UsageError(std::string("--seconds: ") + error.what());
  }
  if (frames == 0) throw UsageError("--seconds: that is no frame at all");
  if (!FitsWaveFile(frames, options.channels, options.bits)) {
    throw UsageError("a WAV file holds at most 4 GiB, and this needs more");
  }
  // Every reason that the take could not be written for is found before it is made.
  static_cast<void>(WaveExport(options.output, ""));
  RequireWritable(options.output);
  const auto device = DeviceChoice::OfInputs(options.device);
  const auto pool = CreateObject<IAudioPool>(CLSID_CAudioPool, "CAudioPool");
  Check(pool->SetBitDepth(32, 0));
  const HRESULT hr = TryPoolFiles(pool.Get());
  if (FAILED(hr)) throw Explain(hr, kTemporaryFolder, ExitStatus::kOutput);

  const Console::Finishing finishing;
  const Shortfall shortfall =
      Record(OpenGrabber(device, format), pool.Get(), format, frames, device, console);
  ComPtr<IAudioReader> take;
  Check(pool->CreateLastReader(take.GetAddressOf()));
  __int64 recorded = 0;
  if (take) Check(take->GetSampleCount(&recorded));
  if (recorded == 0) {
    throw HostError(
        shortfall ? shortfall->status() : ExitStatus::kFailure, options.output,
        std::string(shortfall ? shortfall->what() : "nothing came") + "; nothing was recorded");
  }
  // From here on Ctrl+C means the writing. Impatient ones until now meant the recording.
  console.ForgetInterrupt();
  const SavedTake saved = Save(take.Get(), options, console);
  if (shortfall) {
    throw HostError(shortfall->status(), options.output,
                    "the file is valid and holds the first " +
                        FormatDuration(recorded, format.rate) + "; " + shortfall->what());
  }
  if (options.json) {
    console.Print(ToText({{"device", OrNull(device.index())},
                          {"output", saved.file},
                          {"sample_rate", format.rate},
                          {"channels", format.channels},
                          {"bits_per_sample", options.bits},
                          {"frames", recorded},
                          {"duration_seconds", static_cast<double>(recorded) / format.rate},
                          {"bytes", saved.facts.bytes}}));
  } else {
    console.Print(saved.file + ": " + FormatDuration(recorded, format.rate) + ", " +
                  std::to_string(recorded) + " frames, " + std::to_string(format.rate) + " Hz, " +
                  std::to_string(format.channels) + " channels, " + std::to_string(options.bits) +
                  " bits\n");
  }
}

}  // namespace marlinda
