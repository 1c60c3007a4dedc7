// A sample queue between two threads that waits for each other's work: the writer for room, the
// reader for samples, in rounds of limited length.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <span>

#include "core/samples/audio_queue.h"

namespace marlinda {

// One writer and one reader; the other calls come from any thread.
class PacedQueue {
 public:
  // The writer waits while the queue holds more. Test and append are two steps, so that the queue
  // holds up to one block more than this.
  static constexpr std::size_t kMostQueued = 0x800000;

  struct Pace {
    std::chrono::milliseconds round{500};
    int most_timeouts = 10;  // rounds in which nothing came, over all waits of one read
  };

  PacedQueue() = default;
  explicit PacedQueue(const Pace& pace) : pace_(pace) {}

  std::size_t Count() const noexcept { return queue_.Count(); }
  bool HasRoom() const noexcept { return queue_.Count() < kMostQueued; }

  // Writer: waits for room, for as many rounds as it takes. After each round without a read asks
  // `is_still_read`; once that says no, the queue is closed. False when it is closed.
  bool AwaitRoom(const std::function<bool()>& is_still_read);
  // Throws std::bad_alloc and leaves the queue as it was.
  void Put(std::span<const float> samples);

  // Reader: waits at most one round for something to be put, unless `wanted` samples are there.
  // Adds a round that passed in vain to `timeouts`. False when there is no more to wait for.
  bool AwaitSamples(std::size_t wanted, int& timeouts);
  // Fills all of `destination`; 0.0 for what is not there.
  void Take(std::span<float> destination);

  // From here on a reader gives up after one vain round.
  void Hurry();
  // Lets everybody out who waits, for good. What is in the queue can still be taken.
  void Close();
  // Closes, and frees the memory.
  void CloseAndClear();

 private:
  const Pace pace_{};
  CAudioQueue queue_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Each stays set until the wait for it has seen it, so that nothing is missed in between.
  bool has_put_ = false;
  bool has_taken_ = false;
  bool hurried_ = false;
  bool closed_ = false;
};

}  // namespace marlinda
