// Records into a pool on a separate thread.
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
  // Starts recording from `source`, which must be open. Stop closes `source`.
  Take(ComPtr<IAudioReader> source, ComPtr<IAudioPool> pool, const AudioFormat& format);
  ~Take() { Stop(); }
  Take(const Take&) = delete;
  Take& operator=(const Take&) = delete;

  bool IsRunning() const { return running_; }
  std::int64_t frames() const { return frames_; }
  // Frames in a column of the picture and in a block of the recording.
  std::int64_t frames_per_column() const { return block_frames_; }
  // Appends the columns that `columns` lacks.
  void AppendColumns(std::vector<Extremes>& columns) const;

  // Ends the recording, even if the device delivers nothing. Afterwards, the pool has the take.
  // Returns the first failure of device or pool.
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
  std::vector<Extremes> columns_;  // guarded by mutex_
  HRESULT result_ = S_OK;          // belongs to the thread until the thread has ended
  std::thread thread_;             // last, because the thread uses the members above
};

}  // namespace marlinda::editor
