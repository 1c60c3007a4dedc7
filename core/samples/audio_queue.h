// A growable ring of float samples, first in, first out, with its own lock. The producer and the
// consumer may use different block sizes.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <span>
#include <vector>

namespace marlinda {

// One thread may append while another reads. The ring grows when an append would fill it and
// shrinks only in Clear, so a steady stream stops allocating.
class CAudioQueue {
 public:
  CAudioQueue() : ring_(kGrowMinimum) {}
  virtual ~CAudioQueue() = default;

  // Returns the number of queued samples. Takes no lock. Only the consumer lowers the count, so
  // the consumer never sees a value that is too high.
  std::size_t Count() const noexcept { return count_; }

  // The ring's size in samples, which is always greater than Count().
  std::size_t Capacity() const {
    const std::lock_guard lock(mutex_);
    return ring_.size();
  }

  // Grows the ring at once to at least this size, so that later appends need not grow it.
  void Reserve(std::size_t capacity) {
    const std::lock_guard lock(mutex_);
    if (capacity > ring_.size()) MoveToRing(capacity);
  }

  // Drops all samples. Shrinks the ring to its initial size unless memory runs out.
  void Clear() noexcept {
    const std::lock_guard lock(mutex_);
    read_index_ = 0;
    count_ = 0;
    try {
      std::vector<float>(kGrowMinimum).swap(ring_);
    } catch (const std::bad_alloc&) {
      // Out of memory: the larger ring remains.
    }
  }

  // Appends the samples. If Append throws std::bad_alloc, the queue is unchanged.
  void Append(std::span<const float> samples) {
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

  // Moves the first samples to `destination`. If there are too few, fills the rest with 0.0.
  void Read(std::span<float> destination) { Read(destination, destination.size()); }

  // Fills `destination` likewise, but removes `advance` samples. 0 leaves the queue unchanged.
  void Read(std::span<float> destination, std::size_t advance) {
    const std::lock_guard lock(mutex_);
    const std::size_t count = count_;
    const std::size_t present = std::min(destination.size(), count);
    CopyOut(destination.first(present));
    std::ranges::fill(destination.subspan(present), 0.0F);
    const std::size_t consumed = std::min(advance, count);
    read_index_ = InRing(read_index_ + consumed);
    count_.store(count - consumed, std::memory_order_release);
  }

 private:
  static constexpr std::size_t kGrowMinimum = 2048;

  void MoveToRing(std::size_t capacity) {
    std::vector<float> larger(capacity);
    CopyOut(std::span(larger).first(count_));
    ring_ = std::move(larger);
    read_index_ = 0;
  }
  // Wraps `position`, which is below twice the ring size. A comparison costs less than a division.
  std::size_t InRing(std::size_t position) const noexcept {
    return position < ring_.size() ? position : position - ring_.size();
  }
  void CopyOut(std::span<float> destination) const noexcept {
    const std::size_t to_end = std::min(destination.size(), ring_.size() - read_index_);
    std::copy_n(ring_.data() + read_index_, to_end, destination.data());
    std::copy_n(ring_.data(), destination.size() - to_end, destination.data() + to_end);
  }

  mutable std::mutex mutex_;
  std::vector<float> ring_;
  std::size_t read_index_ = 0;
  std::atomic<std::size_t> count_{0};
};

}  // namespace marlinda
