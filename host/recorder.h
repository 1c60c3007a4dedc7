// Pumps a recording into a pool on a thread of its own, so that the host can watch it and end it.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "core/com_ptr.h"
#include "host/console.h"
#include "host/engine.h"

namespace marlinda {

class Recorder {
 public:
  // Begins at once. `source` is open, and is closed by Stop; `pool` is where one take arrives.
  Recorder(ComPtr<IAudioReader> source, ComPtr<IAudioWriter> pool, const AudioFormat& format,
           std::int64_t frames);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  bool IsRunning() const { return running_; }
  std::int64_t recorded() const { return recorded_; }
  // Highest magnitude of each channel in the block that came last.
  std::vector<float> Levels() const;

  // Ends the recording, also one that waits for a device that delivers nothing. Afterwards what
  // was recorded is a take of the pool. Gives the first failure of device or pool.
  HRESULT Stop();

 private:
  void Pump();

  const ComPtr<IAudioReader> source_;
  const ComPtr<IAudioWriter> pool_;
  const AudioFormat format_;
  const std::int64_t frames_;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> running_ = true;
  std::atomic<std::int64_t> recorded_ = 0;
  std::vector<std::atomic<float>> levels_;
  HRESULT result_ = S_OK;  // the thread's until it has ended
  std::thread thread_;     // the last member: everything above is ready for it
};

}  // namespace marlinda
