// A growable first-in-first-out ring of float samples with its own lock, for a producer and a
// consumer that work at different block sizes.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <span>
#include <vector>

namespace marlinda {

// One thread may append while another reads. The ring grows when an append would fill it and never
// shrinks, so a steady stream stops allocating.
class CAudioQueue {
 public:
  CAudioQueue() : ring_(kGrowMinimum) {}
  virtual ~CAudioQueue() = default;

  // Samples waiting. Read without the lock: only the consumer lowers it, so a stale value never
  // promises it too much.
  std::size_t Count() const noexcept { return count_; }

  // Ring size in samples; always more than Count().
  std::size_t Capacity() const;

  // Makes the ring at least that large, in one step where many appends would take many.
  void Reserve(std::size_t capacity);

  // Drops all samples and the memory that they grew to; the latter stays when there is none for the
  // first size.
  void Clear() noexcept;

  // Adds the samples at the end. Throws std::bad_alloc and leaves the queue as it was.
  void Append(std::span<const float> samples);

  // Copies the first samples into all of `destination` and consumes as many. A queue that holds
  // fewer gives 0.0 for the rest.
  void Read(std::span<float> destination) { Read(destination, destination.size()); }

  // The same, but consumes `advance` samples: 0 only looks.
  void Read(std::span<float> destination, std::size_t advance);

 private:
  static constexpr std::size_t kGrowMinimum = 2048;

  void MoveToRing(std::size_t capacity);
  std::size_t InRing(std::size_t position) const noexcept;
  void CopyOut(std::span<float> destination) const noexcept;

  mutable std::mutex mutex_;
  std::vector<float> ring_;
  std::size_t read_index_ = 0;
  std::atomic<std::size_t> count_{0};
};

}  // namespace marlinda
