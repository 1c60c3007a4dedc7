#include "task/paced_queue.h"

#include <algorithm>

namespace marlinda {

// Either side is woken only when its wait is over: a wake-up for each packet costs more than the
// packet. It sets `writer_waits_` or `wanted_` under the lock before it looks at the queue, and the
// other side reads them under the lock after it has changed the queue, so no wake-up is lost.

bool PacedQueue::AwaitRoom() {
  std::unique_lock lock(mutex_);
  writer_waits_ = true;
  room_.wait(lock, [this] { return interrupted_ || queue_.Count() <= kMaxQueued; });
  writer_waits_ = false;
  return !interrupted_;
}

void PacedQueue::Put(std::span<const float> samples) {
  const std::size_t needed = queue_.Count() + samples.size() + 1;
  const std::size_t capacity = queue_.Capacity();
  // The ring grows by the appended size. Doubling it, up to the limit of the queue, avoids
  // thousands of copies while the queue fills.
  if (needed > capacity) {
    queue_.Reserve(std::max(needed, std::min(2 * capacity, kMaxQueued + samples.size() + 1)));
  }
  queue_.Append(samples);
  const std::lock_guard lock(mutex_);
  has_put_ = true;
  if (wanted_ > 0 && queue_.Count() >= wanted_) samples_.notify_one();
}

bool PacedQueue::AwaitSamples(std::size_t wanted, int& timeouts) {
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

void PacedQueue::Take(std::span<float> destination) {
  queue_.Read(destination);
  const std::lock_guard lock(mutex_);
  if (writer_waits_ && queue_.Count() <= kMaxQueued) room_.notify_one();
}

void PacedQueue::LimitTimeouts(int max_timeouts) {
  const std::lock_guard lock(mutex_);
  max_timeouts_ = max_timeouts;
}

void PacedQueue::Interrupt() {
  const std::lock_guard lock(mutex_);
  interrupted_ = true;
  room_.notify_all();
  samples_.notify_all();
}

void PacedQueue::Reset() {
  const std::lock_guard lock(mutex_);
  queue_.Clear();
  interrupted_ = false;
  max_timeouts_ = pace_.max_timeouts;
}

}  // namespace marlinda
