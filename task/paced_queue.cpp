#include "task/paced_queue.h"

#include <algorithm>
#include <utility>

namespace marlinda {

bool PacedQueue::AwaitRoom(const std::function<bool()>& is_still_read) {
  std::unique_lock lock(mutex_);
  while (!closed_ && queue_.Count() > kMostQueued) {
    const bool news =
        changed_.wait_for(lock, pace_.round, [this] { return has_taken_ || closed_; });
    has_taken_ = false;
    if (news) continue;
    lock.unlock();
    if (!is_still_read()) Close();
    lock.lock();
  }
  return !closed_;
}

void PacedQueue::Put(std::span<const float> samples) {
  const std::size_t needed = queue_.Count() + samples.size() + 1;
  const std::size_t capacity = queue_.Capacity();
  // The ring itself grows by what is appended. A queue that fills up grows by doubling instead, up
  // to what it may hold, or it would copy itself thousands of times.
  if (needed > capacity) {
    queue_.Reserve(std::max(needed, std::min(2 * capacity, kMostQueued + samples.size() + 1)));
  }
  queue_.Append(samples);
  {
    const std::lock_guard lock(mutex_);
    has_put_ = true;
  }
  changed_.notify_all();
}

bool PacedQueue::AwaitSamples(std::size_t wanted, int& timeouts) {
  std::unique_lock lock(mutex_);
  if (queue_.Count() >= wanted) return true;
  if (closed_ || timeouts >= (hurried_ ? 1 : pace_.most_timeouts)) return false;
  if (!changed_.wait_for(lock, pace_.round, [this] { return has_put_ || closed_; })) ++timeouts;
  has_put_ = false;
  return true;
}

void PacedQueue::Take(std::span<float> destination) {
  queue_.Read(destination);
  {
    const std::lock_guard lock(mutex_);
    has_taken_ = true;
  }
  changed_.notify_all();
}

void PacedQueue::Hurry() {
  const std::lock_guard lock(mutex_);
  hurried_ = true;
}

void PacedQueue::Close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
}

void PacedQueue::CloseAndClear() {
  Close();
  queue_.Clear();
}

}  // namespace marlinda
