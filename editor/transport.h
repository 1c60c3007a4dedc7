// Playing, scrubbing and recording.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "editor/document.h"
#include "editor/take.h"
#include "host/sound_devices.h"

namespace marlinda::editor {

class Transport {
 public:
  explicit Transport(Document& document) : document_(document) {}
  ~Transport() { Stop(); }
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Indexes of the devices for the next playback or recording. Empty means the system's default.
  std::optional<int> output;
  std::optional<int> input;

  bool IsPlaying() const { return mode_ == Mode::kPlay; }
  bool IsLooping() const { return IsPlaying() && looped_; }
  bool IsScrubbing() const { return mode_ == Mode::kScrub; }
  bool IsRecording() const { return mode_ == Mode::kRecord; }
  bool IsIdle() const { return mode_ == Mode::kIdle; }

  // Play, StartScrub and Record end the current activity. They throw if the device cannot be used.
  void Play(Range range, bool looped);
  void Loop(Range range);  // sets the section of the running loop
  void StartScrub(std::int64_t position);
  void Scrub(std::int64_t position);
  // Records in the document's format. If the document has no format, records 44100 Hz stereo.
  void Record();

  // Call this at each timer tick. Throws a HostError if playing, scrubbing or recording has ended
  // early. TakeRecording then returns the audio recorded so far.
  void Poll();
  // The position of playback or scrubbing at the last Poll.
  std::int64_t position() const { return position_; }
  // Returns the level of each channel from 0 to 1, or nothing when idle.
  const std::vector<float>& levels() const { return levels_; }

  // Ends the current activity. After a recording, call TakeRecording.
  void Stop();

  // The current recording. Each recorded block is a column, with the extremes of every channel.
  std::int64_t recorded() const { return take_ ? take_->frames() : 0; }
  std::int64_t frames_per_column() const { return take_ ? take_->frames_per_column() : 1; }
  const AudioFormat& recording_format() const { return recording_format_; }
  const std::vector<Extremes>& recorded_columns() const { return columns_; }
  // Returns the last recording. The recording has no frames if the device delivered none.
  Material TakeRecording();

 private:
  enum class Mode { kIdle, kPlay, kScrub, kRecord };

  void PollPlay();
  void PollScrub();
  void PollRecord();
  // Probes the device, because a document does not report a device that cannot be opened.
  void PrepareOutput();
  void ReadLevels();
  bool InputOpens() const;

  Document& document_;
  Mode mode_ = Mode::kIdle;
  std::optional<DeviceChoice> device_;  // the device in use
  Range range_;
  bool looped_ = false;
  std::int64_t position_ = 0;
  ULONGLONG started_ = 0;  // milliseconds
  std::vector<float> levels_;
  AudioFormat recording_format_;
  ComPtr<IAudioPool> pool_;
  std::unique_ptr<Take> take_;
  std::vector<Extremes> columns_;
  std::int64_t last_recorded_ = 0;
  int polls_without_sound_ = 0;
};

}  // namespace marlinda::editor
