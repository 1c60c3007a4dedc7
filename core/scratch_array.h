// An array of floats that is reused for reads of different sizes. A new array for each read would
// cost more than the read.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

namespace marlinda {

// The array is locked for its whole life, so that the system refuses a callee that resizes or
// destroys it.
class ScratchArray {
 public:
  // Throws std::bad_alloc.
  ScratchArray();
  ~ScratchArray();
  ScratchArray(const ScratchArray&) = delete;
  ScratchArray& operator=(const ScratchArray&) = delete;

  // The array with exactly `count` samples, all 0, as a fresh one would be. Throws std::bad_alloc,
  // also when the count exceeds what an array can hold.
  SAFEARRAY* Prepare(std::size_t count);

  // The samples, never more than the array was prepared for.
  std::span<float> samples() noexcept;
  std::span<const float> samples() const noexcept;

  std::size_t capacity() const noexcept { return capacity_; }

 private:
  SAFEARRAY* array_ = nullptr;
  std::unique_ptr<float[]> buffer_;
  std::size_t capacity_ = 0;
  std::size_t count_ = 0;
};

// Keeps one scratch array between calls. Concurrent and nested calls get one array each.
class ScratchCache {
 public:
  ScratchCache() noexcept = default;
  ~ScratchCache() { delete kept_.load(); }
  ScratchCache(const ScratchCache&) = delete;
  ScratchCache& operator=(const ScratchCache&) = delete;

  std::unique_ptr<ScratchArray> Take();
  void GiveBack(std::unique_ptr<ScratchArray> array) noexcept;

 private:
  std::atomic<ScratchArray*> kept_{nullptr};
};

// The kept array for the length of one call.
class ScratchLease {
 public:
  explicit ScratchLease(ScratchCache& cache) : cache_(cache), array_(cache.Take()) {}
  ~ScratchLease() { cache_.GiveBack(std::move(array_)); }
  ScratchLease(const ScratchLease&) = delete;
  ScratchLease& operator=(const ScratchLease&) = delete;

  ScratchArray* operator->() const noexcept { return array_.get(); }

 private:
  ScratchCache& cache_;
  std::unique_ptr<ScratchArray> array_;
};

}  // namespace marlinda
