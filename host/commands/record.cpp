// "marlinda record": records a sound device to a file.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <thread>

#include "core/com_call.h"
#include "host/commands/shared.h"
#include "host/file_name.h"
#include "host/progress.h"
#include "host/sound_devices.h"
#include "host/timecode.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr const char* kRecordHelp =
    "Ctrl+C ends the recording early; the file holds the audio recorded until then.\n"
    "Example: marlinda record take.wav --seconds 60 --rate 48000 --bits 24";

struct RecordOptions {
  std::string output;
  std::string seconds;
  int rate = 44100;
  int channels = 2;
  std::optional<int> bits;
  std::optional<int> device;
  bool json = false;
};

// Records into a pool on its own thread, so that the main thread can watch and end the recording.
class Recorder {
 public:
  // Starts recording a take into `pool`. `source` must be open; Stop closes it.
  Recorder(ComPtr<IAudioReader> source, ComPtr<IAudioWriter> pool, const AudioFormat& format,
           std::int64_t frames)
      : source_(std::move(source)),
        pool_(std::move(pool)),
        format_(format),
        frames_(frames),
        levels_(static_cast<std::size_t>(format.channels)) {
    Check(pool_->SetFormat(format.rate, format.channels));
    Check(pool_->OpenDevice());
    thread_ = std::thread([this] {
      result_ = ComCall([this] { Pump(); });
      running_ = false;
    });
  }
  ~Recorder() { Stop(); }

  bool IsRunning() const { return running_; }
  std::int64_t recorded() const { return recorded_; }
  // Peak magnitude of each channel in the latest block.
  std::vector<float> Levels() const { return {levels_.begin(), levels_.end()}; }

  // Ends the recording, even if the device delivers nothing, and completes the take in the pool.
  // Returns the first failure of device or pool.
  HRESULT Stop() {
    if (!thread_.joinable()) return result_;
    stopping_ = true;
    // A block takes 40 ms. A read that takes seconds waits for a lost device, and only closing the
    // device ends the read.
    constexpr auto kPatience = std::chrono::seconds(2);
    const auto start = std::chrono::steady_clock::now();
    while (running_ && std::chrono::steady_clock::now() - start < kPatience) Sleep(10);
    source_->CloseDevice();
    thread_.join();
    pool_->CloseDevice();
    return result_;
  }

 private:
  void Pump() {
    const auto channels = static_cast<std::size_t>(format_.channels);
    const std::int64_t block_frames = std::max(1L, format_.rate / 25);
    while (!stopping_ && recorded_ < frames_) {
      const std::int64_t frames = std::min(frames_ - recorded_, block_frames);
      const FloatArray block(static_cast<std::size_t>(frames) * channels);
      Check(source_->ReadAudio(0, block.get()));
      const std::span<const float> samples = block.samples();
      for (std::size_t channel = 0; channel < channels; ++channel) {
        float level = 0.0F;
        for (std::size_t i = channel; i < samples.size(); i += channels) {
          level = std::max(level, std::abs(samples[i]));
        }
        levels_[channel] = level;
      }
      Check(pool_->WriteAudio(block.get()));
      recorded_ += static_cast<std::int64_t>(samples.size() / channels);
    }
  }

  const ComPtr<IAudioReader> source_;
  const ComPtr<IAudioWriter> pool_;
  const AudioFormat format_;
  const std::int64_t frames_;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> running_ = true;
  std::atomic<std::int64_t> recorded_ = 0;
  std::vector<std::atomic<float>> levels_;
  HRESULT result_ = S_OK;  // owned by the thread until it ends
  std::thread thread_;     // declared last, because it uses the other members
};

bool CanBeOpened(const DeviceChoice& device, const AudioFormat& format) {
  try {
    OpenGrabber(device, format)->CloseDevice();
    return true;
  } catch (const HostError&) {
    return false;
  }
}

// Records up to `frames` frames. Returns the reason if the recording ended early, else nothing.
std::optional<HostError> Record(ComPtr<IAudioReader> grabber, IAudioPool* pool,
                                const AudioFormat& format, std::int64_t frames,
                                const DeviceChoice& device, const Console& console) {
  constexpr DWORD kPollMilliseconds = 50;
  // After this many polls without a frame, Record tests whether the device can be opened again. A
  // lost device cannot be opened. A stalled device can, and recording may continue.
  constexpr int kPollsBetweenProbes = 100;
  Recorder recorder(std::move(grabber), Query<IAudioWriter>(pool), format, frames);
  ProgressBar bar(console.Progress(), "Recording");
  std::int64_t recorded = 0;
  const auto show = [&] {
    bar.Show(TransportLine("Recording", recorded, frames, format.rate, recorder.Levels()),
             static_cast<double>(recorded) / static_cast<double>(frames));
  };
  int polls = 0;
  while (recorder.IsRunning()) {
    if (console.Interrupted()) {
      recorder.Stop();
      return HostError(ExitStatus::kInterrupted, "", "interrupted");
    }
    if (recorder.recorded() != recorded) polls = 0;
    recorded = recorder.recorded();
    if (++polls % kPollsBetweenProbes == 0 && !CanBeOpened(device, format)) {
      recorder.Stop();
      return DeviceLost(device, "it stopped delivering audio");
    }
    show();
    console.Wait(kPollMilliseconds);
  }
  const HRESULT hr = recorder.Stop();
  recorded = recorder.recorded();
  show();
  if (FAILED(hr)) return Explain(hr, kTemporaryFolder, ExitStatus::kOutput);
  return std::nullopt;
}

// Writes the take. A take cannot be repeated, so if the output fails, Save writes the take to the
// temporary folder, which may be on another disk.
WaveFileFacts Save(IAudioReader* take, const RecordOptions& options, int bits,
                   const Console& console) {
  try {
    return FileExport(options.output, {}).Run(take, bits, console);
  } catch (const HostError& error) {
    if (error.status() != ExitStatus::kOutput) throw;
    const std::string spare = Narrow((std::filesystem::temp_directory_path() /
                                      ("take-" + std::to_string(GetCurrentProcessId()) + ".wav"))
                                         .wstring());
    console.Tell(error.what());
    FileExport(spare, {}).Run(take, bits, console);
    throw HostError(error.status(), options.output, "the take was saved as " + spare + " instead");
  }
}

void RecordFile(const RecordOptions& options, const Console& console) {
  const AudioFormat format = {options.rate, static_cast<SHORT>(options.channels)};
  const auto in_frames = [&](std::string_view text) {
    return Timecode::Parse(text).ToFrames(options.rate);
  };
  const std::int64_t frames = ForOption("--seconds", in_frames, options.seconds);
  if (frames == 0) throw UsageError("record", "--seconds: that is less than one frame");
  // Before recording, check that the output can be written.
  const FileExport wave(options.output, {});
  const int width = OutputBits(options.bits, std::nullopt, wave);
  wave.RequireRoom(frames, format, width);
  RequireWritable(options.output);
  const auto device = DeviceChoice::OfInputs(options.device);
  const auto pool = NewPool();

  const Console::Finishing finishing;
  const auto shortfall =
      Record(OpenGrabber(device, format), pool.Get(), format, frames, device, console);
  const auto [take, ignored, recorded] = LastTake(pool.Get());
  if (recorded == 0) {
    throw HostError(shortfall ? shortfall->status() : ExitStatus::kFailure, options.output,
                    std::string(shortfall ? shortfall->what() : "the device delivered no audio") +
                        "; nothing was recorded");
  }
  // An earlier Ctrl+C ended the recording. A Ctrl+C after this call interrupts the writing.
  console.ForgetInterrupt();
  const WaveFileFacts facts = Save(take.Get(), options, width, console);
  if (shortfall) {
    throw HostError(shortfall->status(), options.output,
                    "the file is valid and holds the first " +
                        FormatDuration(recorded, format.rate) + "; " + shortfall->what());
  }
  // Compressed files have no bits per sample.
  const int bits = facts.block_align > 0 ? width : 0;
  if (options.json) {
    console.Print(Serialize({{"device", OrNull(device.index())},
                             {"output", options.output},
                             {"sample_rate", format.rate},
                             {"channels", format.channels},
                             {"bits_per_sample", bits > 0 ? Json(bits) : Json(nullptr)},
                             {"frames", recorded},
                             {"duration_seconds", static_cast<double>(recorded) / format.rate},
                             {"bytes", facts.bytes}}));
  } else {
    console.Print(DescribeFile(options.output, recorded, format, bits));
  }
}

}  // namespace

void AddRecord(CLI::App& app, Console& console) {
  const auto [command, options] =
      AddCommand(app, console, "record", "Record a WAV file", kRecordHelp, RecordFile);
  AddOutput(command, options->output);
  command->add_option("--seconds", options->seconds, "How long to record")
      ->option_text("TIME")
      ->required();
  AddFormat(command, options->rate, options->channels, "44100 Hz, 2 channels unless given");
  AddBits(command, options->bits, "16 unless given");
  AddDevice(command, options->device);
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
