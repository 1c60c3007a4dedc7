// PacedQueue: a bounded sample queue between two threads. The writer waits for room, the reader for
// samples.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <span>

#include "core/samples/audio_queue.h"

namespace marlinda {

// Serves one writer thread and one reader thread. Any thread may call the other methods.
//
// Wakes a thread only when it can continue, because waking a thread for each block costs more than
// handling the block. The waiting thread sets `writer_waits_` or `wanted_` under the lock before it
// tests the queue. The other thread reads these members under the lock after it has changed the
// queue, so no wake-up is lost.
class PacedQueue {
 public:
  // The writer waits while the queue holds more samples than this. Testing and appending are two
  // steps, so the queue can exceed this by one block.
  static constexpr std::size_t kMaxQueued = 0x800000;

  struct Pace {
    std::chrono::milliseconds round{500};
    int max_timeouts = 10;
  };

  PacedQueue() = default;
  explicit PacedQueue(const Pace& pace) : pace_(pace) {}

  std::size_t Count() const noexcept { return queue_.Count(); }
  bool HasRoom() const noexcept { return queue_.Count() < kMaxQueued; }

  // Writer: waits until at most kMaxQueued samples are queued, without a time limit. Returns false
  // if interrupted.
  bool AwaitRoom() {
    std::unique_lock lock(mutex_);
    writer_waits_ = true;
    room_.wait(lock, [this] { return interrupted_ || queue_.Count() <= kMaxQueued; });
    writer_waits_ = false;
    return !interrupted_;
  }
  // Writer: appends the samples. If Put throws std::bad_alloc, the queue is unchanged.
  void Put(std::span<const float> samples) {
    const std::size_t needed = queue_.Count() + samples.size() + 1;
    const std::size_t capacity = queue_.Capacity();
    // Append would grow the queue's ring buffer by just the appended size. Doubling the ring,
    // up to the limit of the queue, saves thousands of copies while the queue fills.
    if (needed > capacity) {
      queue_.Reserve(std::max(needed, std::min(2 * capacity, kMaxQueued + samples.size() + 1)));
    }
    queue_.Append(samples);
    const std::lock_guard lock(mutex_);
    has_put_ = true;
    if (wanted_ > 0 && queue_.Count() >= wanted_) samples_.notify_one();
  }

  // Reader: waits for `wanted` samples. Adds 1 to `timeouts` for each round in which nothing
  // arrives. Returns false if samples are missing after too many timeouts or an interruption.
  bool AwaitSamples(std::size_t wanted, int& timeouts) {
    std::unique_lock lock(mutex_);
    const auto is_over = [&] { return interrupted_ || queue_.Count() >= wanted; };
    wanted_ = wanted;
    while (!is_over() && timeouts < max_timeouts_) {
      has_put_ = false;
      if (!samples_.wait_for(lock, pace_.round, is_over) && !has_put_) ++timeouts;
    }
    wanted_ = 0;
    return queue_.Count() >= wanted;
  }
  // Reader: fills all of `destination`, with 0.0 where samples are missing.
  void Take(std::span<float> destination) {
    queue_.Read(destination);
    const std::lock_guard lock(mutex_);
    if (writer_waits_ && queue_.Count() <= kMaxQueued) room_.notify_one();
  }

  // Until Reset, the reader gives up after this many timeouts.
  void LimitTimeouts(int max_timeouts) {
    const std::lock_guard lock(mutex_);
    max_timeouts_ = max_timeouts;
  }
  // Wakes both threads. Until Reset, neither thread waits. Queued samples stay readable.
  void Interrupt() {
    const std::lock_guard lock(mutex_);
    interrupted_ = true;
    room_.notify_all();
    samples_.notify_all();
  }
  // Drops all samples, frees their memory and lets both threads wait again.
  void Reset() {
    const std::lock_guard lock(mutex_);
    queue_.Clear();
    interrupted_ = false;
    max_timeouts_ = pace_.max_timeouts;
  }

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
  bool has_put_ = false;    // Put was called during the reader's current wait
};

}  // namespace marlinda
