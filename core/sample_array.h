// Sample blocks: a view of the floats in a caller's SAFEARRAY, and an array that the engine owns.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <cstddef>
#include <span>
#include <utility>

namespace marlinda {

// Locks a caller's array and gives its samples; unlocks on destruction. Lower bounds do not matter:
// the block is all the elements from the first on.
class SampleArrayView {
 public:
  SampleArrayView() noexcept = default;
  ~SampleArrayView();
  SampleArrayView(const SampleArrayView&) = delete;
  SampleArrayView& operator=(const SampleArrayView&) = delete;

  // E_INVALIDARG unless `array` is a one-dimensional array of 4-byte floats that has its data. To
  // be called once.
  HRESULT Lock(SAFEARRAY* array) noexcept;

  std::span<float> samples() const noexcept { return samples_; }

 private:
  SAFEARRAY* array_ = nullptr;
  std::span<float> samples_;
};

// A one-dimensional array of floats that the engine owns, to pass to a reader or a writer.
class SampleArray {
 public:
  SampleArray() noexcept = default;
  // All samples are 0. Throws std::bad_alloc, also when the count exceeds what an array can hold.
  explicit SampleArray(std::size_t count);
  ~SampleArray();
  SampleArray(const SampleArray&) = delete;
  SampleArray& operator=(const SampleArray&) = delete;
  SampleArray(SampleArray&& other) noexcept;
  SampleArray& operator=(SampleArray&& other) noexcept;

  // Gives the array another element count. The samples keep their values as far as both reach.
  void Resize(std::size_t count);

  SAFEARRAY* get() const noexcept { return array_; }

  // Transfers ownership to the caller.
  SAFEARRAY* Detach() noexcept { return std::exchange(array_, nullptr); }

  // Reads the size from the descriptor each time, because a callee can resize the array.
  std::span<float> samples() const noexcept;

 private:
  SAFEARRAY* array_ = nullptr;
};

}  // namespace marlinda
