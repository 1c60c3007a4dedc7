// Sample blocks: a view of the floats in a caller's SAFEARRAY, and an array that the engine owns.
#pragma once

#include <ole2.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace marlinda {

// Keeps a caller's array locked while the view exists. Gives access to all samples and ignores the
// lower bound.
class SampleArrayView {
 public:
  SampleArrayView() noexcept = default;
  ~SampleArrayView();
  SampleArrayView(const SampleArrayView&) = delete;
  SampleArrayView& operator=(const SampleArrayView&) = delete;

  // Fails with E_INVALIDARG unless `array` is a one-dimensional array of 4-byte floats with memory
  // for its elements. Call it once.
  HRESULT Lock(SAFEARRAY* array) noexcept;

  std::span<float> samples() const noexcept { return samples_; }

 private:
  SAFEARRAY* array_ = nullptr;
  std::span<float> samples_;
};

// An array of floats that the engine owns and passes to readers and writers. The array is always
// locked, so SafeArrayRedim and SafeArrayDestroy fail. If the count shrinks, Resize keeps the
// memory, because allocating an array for each read would cost more than the read.
class SampleArray {
 public:
  // All samples are 0. Throws std::bad_alloc if memory runs out or `count` exceeds the array limit.
  explicit SampleArray(std::size_t count = 0);
  ~SampleArray();
  SampleArray(const SampleArray&) = delete;
  SampleArray& operator=(const SampleArray&) = delete;

  // Changes the element count. Samples up to the smaller count keep their values. New samples are
  // 0. If Resize throws std::bad_alloc, the array is unchanged.
  void Resize(std::size_t count);
  // Returns the array with exactly `count` samples, all 0. Throws std::bad_alloc.
  SAFEARRAY* Prepare(std::size_t count);

  SAFEARRAY* get() const noexcept { return array_; }
  std::size_t capacity() const noexcept { return buffer_.capacity(); }

  // The span never exceeds the allocated count, even if a callee changed the descriptor.
  std::span<float> samples() noexcept { return {buffer_.data(), Count()}; }
  std::span<const float> samples() const noexcept { return {buffer_.data(), Count()}; }

 private:
  std::size_t Count() const noexcept;

  SAFEARRAY* array_ = nullptr;
  std::vector<float> buffer_;
};

// Keeps one array between calls. If another call has taken the array, Take makes a new array.
class ScratchCache {
 public:
  ScratchCache() noexcept = default;
  ~ScratchCache() { delete kept_.load(); }

  std::unique_ptr<SampleArray> Take();
  void GiveBack(std::unique_ptr<SampleArray> array) noexcept;

 private:
  std::atomic<SampleArray*> kept_{nullptr};
};

// Takes an array from the cache and gives it back at the end of the scope.
class ScratchLease {
 public:
  explicit ScratchLease(ScratchCache& cache) : cache_(cache), array_(cache.Take()) {}
  ~ScratchLease() { cache_.GiveBack(std::move(array_)); }

  SampleArray* operator->() const noexcept { return array_.get(); }

 private:
  ScratchCache& cache_;
  std::unique_ptr<SampleArray> array_;
};

}  // namespace marlinda
