// A recording that goes into a pool on a thread of its own.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "editor/waveform.h"
#include "host/engine.h"

namespace marlinda::editor {

class Take {
 public:
  // Begins at once. `source` is open; Stop closes it.
  Take(ComPtr<IAudioReader> source, ComPtr<IAudioPool> pool, const AudioFormat& format);
  ~Take() { Stop(); }
  Take(const Take&) = delete;
  Take& operator=(const Take&) = delete;

  bool IsRunning() const { return running_; }
  std::int64_t frames() const { return frames_; }
  // Frames of a column of the picture, and of a block of the recording.
  std::int64_t frames_per_column() const { return block_frames_; }
  // Adds the columns that have come since `columns` was as long as it is.
  void AppendColumns(std::vector<Extremes>& columns) const;

  // Ends the recording, also one that waits for a device that delivers nothing. Afterwards it is a
  // take of the pool. Returns the first failure of device or pool.
  HRESULT Stop();

 private:
  HRESULT Pump();
  void Measure(std::span<const float> block);

  const ComPtr<IAudioReader> source_;
  const ComPtr<IAudioPool> pool_;
  const ComPtr<IAudioWriter> writer_;
  const AudioFormat format_;
  const std::int64_t block_frames_;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> running_ = true;
  std::atomic<std::int64_t> frames_ = 0;
  mutable std::mutex mutex_;
  std::vector<Extremes> columns_;  // guarded
  HRESULT result_ = S_OK;          // the thread's until it has ended
  std::thread thread_;             // the last member: everything above is ready for it
};

}  // namespace marlinda::editor
