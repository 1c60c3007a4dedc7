#include "core/audio_queue.h"

#include <algorithm>

namespace marlinda {

std::size_t CAudioQueue::Capacity() const {
  const std::lock_guard lock(mutex_);
  return ring_.size();
}

void CAudioQueue::Append(std::span<const float> samples) {
  const std::lock_guard lock(mutex_);
  if (count_ + samples.size() >= ring_.size()) {
    MoveToRing(ring_.size() + std::max(samples.size(), kGrowMinimum));
  }
  const std::size_t write_index = (read_index_ + count_) % ring_.size();
  const std::size_t to_end = std::min(samples.size(), ring_.size() - write_index);
  std::ranges::copy(samples.first(to_end),
                    ring_.begin() + static_cast<std::ptrdiff_t>(write_index));
  std::ranges::copy(samples.subspan(to_end), ring_.begin());
  count_ += samples.size();
}

void CAudioQueue::Read(std::span<float> destination, std::size_t advance) {
  const std::lock_guard lock(mutex_);
  const std::size_t present = std::min<std::size_t>(destination.size(), count_);
  CopyOut(destination.first(present));
  std::ranges::fill(destination.subspan(present), 0.0F);
  const std::size_t consumed = std::min<std::size_t>(advance, count_);
  read_index_ = (read_index_ + consumed) % ring_.size();
  count_ -= consumed;
}

void CAudioQueue::Reserve(std::size_t capacity) {
  const std::lock_guard lock(mutex_);
  if (capacity > ring_.size()) MoveToRing(capacity);
}

void CAudioQueue::Clear() {
  std::vector<float> fresh(kGrowMinimum);
  const std::lock_guard lock(mutex_);
  ring_.swap(fresh);
  read_index_ = 0;
  count_ = 0;
}

void CAudioQueue::MoveToRing(std::size_t capacity) {
  std::vector<float> larger(capacity);
  CopyOut(std::span(larger).first(count_));
  ring_ = std::move(larger);
  read_index_ = 0;
}

void CAudioQueue::CopyOut(std::span<float> destination) const noexcept {
  const std::size_t to_end = std::min(destination.size(), ring_.size() - read_index_);
  const auto first = ring_.begin() + static_cast<std::ptrdiff_t>(read_index_);
  std::copy_n(first, to_end, destination.begin());
  std::copy_n(ring_.begin(), destination.size() - to_end,
              destination.begin() + static_cast<std::ptrdiff_t>(to_end));
}

}  // namespace marlinda
