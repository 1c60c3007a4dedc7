#include "editor/transport.h"

#include <algorithm>
#include <utility>

#include "host/timecode.h"

namespace marlinda::editor {
namespace {

HostError NoSuchDevice(const HostError& error) {
  // Replaces the error's remedy, which names an option of marlinda.exe.
  return {error.status(), error.subject(), error.reason(),
          "Connect a device and start the system's sound service, or choose another device in the "
          "Sound menu."};
}

template <class Use>
auto WithDevice(Use use) {
  try {
    return use();
  } catch (const HostError& error) {
    throw NoSuchDevice(error);
  }
}

}  // namespace

void Transport::PrepareOutput() {
  WithDevice([&] {
    device_ = DeviceChoice::OfOutputs(output);
    const AudioFormat& format = document_.format();
    const SHORT bits = ChooseOutputBits(*device_, format);
    Check(document_.audio()->SetFormat(format.rate, format.channels, bits));
    Check(document_.audio()->SetPlaybackDevice(device_->number()));
  });
}

void Transport::Play(Range range, bool looped) {
  Stop();
  if (range.empty()) return;
  PrepareOutput();
  constexpr ULONG kAllChannels = 0xFFFFFFFF;
  Check(document_.audio()->Play(range.begin, range.end, kAllChannels,
                                looped ? VARIANT_TRUE : VARIANT_FALSE));
  mode_ = Mode::kPlay;
  range_ = range;
  looped_ = looped;
  position_ = range.begin;
  started_ = GetTickCount64();
}

void Transport::Loop(Range range) {
  if (!IsLooping() || range.empty() || range == range_) return;
  Check(document_.audio()->ModifyPlaySection(range.begin, range.end));
  range_ = range;
}

void Transport::StartScrub(std::int64_t position) {
  Stop();
  if (document_.frames() == 0) return;
  PrepareOutput();
  Check(Query<IScrubSupport>(document_.audio())->StartScrub());
  mode_ = Mode::kScrub;
  Scrub(position);
}

void Transport::Scrub(std::int64_t position) {
  if (!IsScrubbing()) return;
  position_ = std::clamp<std::int64_t>(position, 0, document_.frames());
  Check(Query<IScrubSupport>(document_.audio())->SetScrubPosition(position_));
}

void Transport::Record() {
  Stop();
  recording_format_ = document_.frames() > 0 ? document_.format() : AudioFormat{44100, 2};
  pool_ = NewPool();
  WithDevice([&] {
    device_ = DeviceChoice::OfInputs(input);
    take_ =
        std::make_unique<Take>(OpenGrabber(*device_, recording_format_), pool_, recording_format_);
  });
  columns_.clear();
  last_recorded_ = 0;
  polls_without_sound_ = 0;
  mode_ = Mode::kRecord;
}

void Transport::Poll() {
  if (mode_ == Mode::kPlay) PollPlay();
  if (mode_ == Mode::kScrub) PollScrub();
  if (mode_ == Mode::kRecord) PollRecord();
}

void Transport::ReadLevels() {
  levels_.assign(static_cast<std::size_t>(document_.format().channels), 0.0F);
  for (std::size_t i = 0; i < levels_.size(); ++i) {
    document_.audio()->GetOutputLevel(static_cast<SHORT>(i), &levels_[i]);
  }
}

void Transport::PollPlay() {
  VARIANT_BOOL playing = VARIANT_FALSE;
  __int64 position = 0;
  Check(document_.audio()->GetPlayStatus(&playing, &position));
  if (playing != VARIANT_FALSE) {
    // At the end of a section that does not loop, the engine reports the section's start again. The
    // position must not jump back.
    position_ = looped_ ? position : std::max<std::int64_t>(position_, position);
    return ReadLevels();
  }
  // If playback took less time than the audio lasts, the device did not play the rest.
  constexpr ULONGLONG kSlackMilliseconds = 500;
  const ULONGLONG took = GetTickCount64() - started_ + kSlackMilliseconds;
  const LONG rate = document_.format().rate;
  const bool early = looped_ || took * static_cast<ULONGLONG>(rate) / 1000 <
                                    static_cast<ULONGLONG>(range_.length());
  const std::int64_t place = position_;
  Stop();
  if (early) {
    throw NoSuchDevice(DeviceLost(*device_, "playing ended at " + FormatDuration(place, rate)));
  }
}

void Transport::PollScrub() {
  ReadLevels();
  // Asks for the level of a channel that the audio lacks. The call fails while the device is open.
  // It succeeds after the engine has closed a lost device.
  float level = 0;
  if (FAILED(document_.audio()->GetOutputLevel(document_.format().channels, &level))) return;
  Stop();
  throw NoSuchDevice(DeviceLost(*device_, "it stopped playing"));
}

bool Transport::InputOpens() const {
  try {
    OpenGrabber(*device_, recording_format_)->CloseDevice();
    return true;
  } catch (const HostError&) {
    return false;
  }
}

void Transport::PollRecord() {
  // A device that delivers nothing is stalled or lost. To tell which, PollRecord tries to open it a
  // second time after each run of this many polls without a frame. A lost device fails to open.
  constexpr int kPollsBetweenProbes = 150;
  take_->AppendColumns(columns_);
  const auto channels = static_cast<std::size_t>(recording_format_.channels);
  levels_.assign(channels, 0.0F);
  for (std::size_t i = 0; columns_.size() >= channels && i < channels; ++i) {
    const Extremes& last = columns_[columns_.size() - channels + i];
    levels_[i] = std::max(-last.lowest, last.highest);
  }
  const std::int64_t recorded = take_->frames();
  if (recorded != last_recorded_) polls_without_sound_ = 0;
  last_recorded_ = recorded;
  const bool failed = !take_->IsRunning();
  if (!failed && (++polls_without_sound_ % kPollsBetweenProbes != 0 || InputOpens())) return;
  const HRESULT result = take_->Stop();
  Stop();
  // The device fails with E_FAIL, the pool with the system's error.
  if (failed && result != E_FAIL) throw Explain(result, kTemporaryFolder, ExitStatus::kOutput);
  throw NoSuchDevice(DeviceLost(*device_, "it stopped delivering audio"));
}

void Transport::Stop() {
  const Mode was = std::exchange(mode_, Mode::kIdle);
  levels_.clear();
  if (was == Mode::kPlay) document_.audio()->StopPlay();
  if (was == Mode::kScrub) {
    if (const auto scrub = TryQuery<IScrubSupport>(document_.audio())) scrub->StopScrub();
  }
  if (was == Mode::kRecord) take_->Stop();
}

Material Transport::TakeRecording() {
  take_.reset();
  const ComPtr<IAudioPool> pool = std::exchange(pool_, nullptr);
  return {pool ? LastTake(pool.Get()) : ImportedAudio(), {}, {}};
}

}  // namespace marlinda::editor
