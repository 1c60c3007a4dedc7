// A block of samples to hand to an interface.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <span>

namespace marlinda {

// A one-dimensional array of floats, all 0 at first.
class FloatArray {
 public:
  explicit FloatArray(std::size_t count)
      : array_(SafeArrayCreateVector(VT_R4, 0, static_cast<ULONG>(count))) {
    if (array_ == nullptr) throw std::bad_alloc();
    std::ranges::fill(samples(), 0.0F);
  }
  FloatArray(const FloatArray&) = delete;
  FloatArray& operator=(const FloatArray&) = delete;
  ~FloatArray() { SafeArrayDestroy(array_); }

  SAFEARRAY* get() const { return array_; }
  std::span<float> samples() const {
    return {static_cast<float*>(array_->pvData), array_->rgsabound[0].cElements};
  }

 private:
  SAFEARRAY* array_;
};

}  // namespace marlinda
