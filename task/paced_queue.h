// PacedQueue: a bounded sample queue between two threads. The writer waits for room, the reader for
// samples.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <span>

#include "core/samples/audio_queue.h"

namespace marlinda {

// One writer and one reader. The other calls come from any thread.
class PacedQueue {
 public:
  // The writer waits while the queue holds more. Test and append are two steps, so the queue holds
  // up to one block more than this.
  static constexpr std::size_t kMaxQueued = 0x800000;

  struct Pace {
    std::chrono::milliseconds round{500};
    int max_timeouts = 10;
  };

  PacedQueue() = default;
  explicit PacedQueue(const Pace& pace) : pace_(pace) {}

  std::size_t Count() const noexcept { return queue_.Count(); }
  bool HasRoom() const noexcept { return queue_.Count() < kMaxQueued; }

  // Writer: waits for room without limit. False if interrupted.
  bool AwaitRoom();
  // Writer: appends the samples. Throws std::bad_alloc and leaves the queue as it was.
  void Put(std::span<const float> samples);

  // Reader: waits until the queue holds `wanted` samples. Adds the rounds in which nothing arrived
  // to `timeouts`. False if these become too many, or if interrupted.
  bool AwaitSamples(std::size_t wanted, int& timeouts);
  // Reader: fills all of `destination`, with 0.0 where samples are missing.
  void Take(std::span<float> destination);

  // Makes the reader give up after so many timeouts, until Reset.
  void LimitTimeouts(int max_timeouts);
  // Wakes both sides and ends their waits, until Reset. Queued samples stay readable.
  void Interrupt();
  // Drops all samples, frees their memory and lets both sides wait again.
  void Reset();

 private:
  const Pace pace_{};
  CAudioQueue queue_;
  std::mutex mutex_;
  std::condition_variable room_;
  std::condition_variable samples_;
  int max_timeouts_ = pace_.max_timeouts;
  bool interrupted_ = false;
  bool writer_waits_ = false;
  std::size_t wanted_ = 0;  // samples that the reader waits for
  bool has_put_ = false;    // since the reader's round began
};

}  // namespace marlinda
