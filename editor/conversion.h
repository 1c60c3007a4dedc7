// Converts audio to another format on a separate thread.
#pragma once

#include <converter.h>
#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "host/engine.h"

namespace marlinda::editor {

class Conversion {
 public:
  // Starts the conversion. Throws a HostError if Converter.dll is missing or refuses the formats.
  Conversion(const ImportedAudio& from, const AudioFormat& to);
  // Cancels the conversion and waits for its thread.
  ~Conversion();
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;

  bool IsRunning() const { return running_; }
  // Returns the progress from 0 to 1.
  float progress() const;
  // Waits for the end. Returns the converted audio. Throws a HostError on failure.
  ImportedAudio Finish();

 private:
  const ImportedAudio from_;
  const AudioFormat format_;
  const std::int64_t frames_;  // the length of the converted audio
  const ComPtr<IFormatConverter> converter_;
  const ComPtr<IAudioPool> pool_;
  std::atomic<bool> cancelled_ = false;
  std::atomic<bool> running_ = true;
  std::atomic<std::int64_t> written_ = 0;
  HRESULT result_ = S_OK;  // belongs to the thread until the thread has ended
  std::thread thread_;     // last, because the thread uses the members above
};

}  // namespace marlinda::editor
