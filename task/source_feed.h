// SourceFeed: the samples of one set-up, from the source through the converter into the queue.
#pragma once

#include <converter.h>
#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include "core/com_ptr.h"
#include "core/sample_array.h"
#include "task/paced_queue.h"

namespace marlinda {

struct StreamFormat {
  LONG rate = 0;
  SHORT channels = 0;

  bool IsKnown() const noexcept { return rate > 0 && channels > 0; }
  bool operator==(const StreamFormat&) const = default;
};

// Shared by the host's thread and the threads of the two filters. It holds no reference to a
// filter: filters belong to the host's apartment and may count their references without
// interlocking.
class SourceFeed {
 public:
  // A plain queue, before the first set-up.
  SourceFeed() = default;
  // `reader` is borrowed until DetachReader. Null means that an import filter writes the samples.
  SourceFeed(IAudioReader* reader, const StreamFormat& target);

  const StreamFormat& target() const noexcept { return target_; }
  PacedQueue& queue() noexcept { return queue_; }

  // Host: sets the source's format and length in frames. Creates the converter if the format is
  // known and differs from the target. Without a converter, samples pass unchanged.
  void SetSource(const StreamFormat& format, __int64 frames);
  // Host: whether the import task ran at the last poll.
  void SetImportRuns(bool runs) noexcept { import_runs_ = runs; }
  // Host: waits for the end of a read of the reader and prevents further ones.
  void DetachReader();

  // Export's thread. S_FALSE and 0.0 for the rest if the source has stopped delivering.
  HRESULT Read(SAFEARRAY* array);
  // Import's thread. Waits for room. Drops the block if the queue is interrupted.
  HRESULT Write(SAFEARRAY* array);

 private:
  // Both bring the queue to `wanted` samples. False if the source does not deliver them.
  bool PullSamples(std::size_t wanted);
  bool AwaitSamples(std::size_t wanted, int& timeouts);

  // The lock is held in all of these.
  void PullBlock();
  void SilenceBeyondEnd(std::span<float> samples, __int64 first_frame) const;
  void Push(SAFEARRAY* array, std::span<const float> samples);
  void Convert(SAFEARRAY* array);
  bool PushSilence();

  const StreamFormat target_{};
  const bool pulls_ = false;  // from a reader
  PacedQueue queue_;
  std::atomic<bool> import_runs_ = true;
  std::atomic<bool> gave_up_ = false;  // the last read waited for its full time

  std::mutex mutex_;  // of all below
  IAudioReader* reader_ = nullptr;
  std::unique_ptr<SampleArray> block_;
  __int64 read_position_ = 0;
  StreamFormat source_;
  __int64 source_frames_ = 0;
  ComPtr<IFormatConverter> converter_;
  __int64 samples_in_ = 0;
  __int64 samples_out_ = 0;  // of the converter
  int silent_blocks_ = 0;
};

}  // namespace marlinda
