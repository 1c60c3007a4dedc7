#include "core/samples/audio_queue.h"

#include <algorithm>
#include <new>

namespace marlinda {

std::size_t CAudioQueue::Capacity() const {
  const std::lock_guard lock(mutex_);
  return ring_.size();
}

void CAudioQueue::Append(std::span<const float> samples) {
  const std::lock_guard lock(mutex_);
  const std::size_t count = count_;
  if (count + samples.size() >= ring_.size()) {
    MoveToRing(ring_.size() + std::max(samples.size(), kGrowMinimum));
  }
  const std::size_t write_index = InRing(read_index_ + count);
  const std::size_t to_end = std::min(samples.size(), ring_.size() - write_index);
  std::copy_n(samples.data(), to_end, ring_.data() + write_index);
  std::copy_n(samples.data() + to_end, samples.size() - to_end, ring_.data());
  count_.store(count + samples.size(), std::memory_order_release);
}

void CAudioQueue::Read(std::span<float> destination, std::size_t advance) {
  const std::lock_guard lock(mutex_);
  const std::size_t count = count_;
  const std::size_t present = std::min(destination.size(), count);
  CopyOut(destination.first(present));
  std::ranges::fill(destination.subspan(present), 0.0F);
  const std::size_t consumed = std::min(advance, count);
  read_index_ = InRing(read_index_ + consumed);
  count_.store(count - consumed, std::memory_order_release);
}

void CAudioQueue::Reserve(std::size_t capacity) {
  const std::lock_guard lock(mutex_);
  if (capacity > ring_.size()) MoveToRing(capacity);
}

void CAudioQueue::Clear() noexcept {
  const std::lock_guard lock(mutex_);
  read_index_ = 0;
  count_ = 0;
  try {
    std::vector<float>(kGrowMinimum).swap(ring_);
  } catch (const std::bad_alloc&) {
    // The larger ring serves as well.
  }
}

void CAudioQueue::MoveToRing(std::size_t capacity) {
  std::vector<float> larger(capacity);
  CopyOut(std::span(larger).first(count_));
  ring_ = std::move(larger);
  read_index_ = 0;
}

void CAudioQueue::CopyOut(std::span<float> destination) const noexcept {
  const std::size_t to_end = std::min(destination.size(), ring_.size() - read_index_);
  std::copy_n(ring_.data() + read_index_, to_end, destination.data());
  std::copy_n(ring_.data(), destination.size() - to_end, destination.data() + to_end);
}

// Of a position that is less than two rings: cheaper than a division.
std::size_t CAudioQueue::InRing(std::size_t position) const noexcept {
  return position < ring_.size() ? position : position - ring_.size();
}

}  // namespace marlinda
