#include "core/scratch_array.h"

#include <algorithm>
#include <limits>
#include <new>

namespace marlinda {
namespace {

// Larger arrays are not kept: 8 MiB is the size for the widest screens.
constexpr std::size_t kMaxKeptSamples = std::size_t{1} << 21;

}  // namespace

ScratchArray::ScratchArray() {
  if (FAILED(SafeArrayAllocDescriptorEx(VT_R4, 1, &array_))) throw std::bad_alloc();
  array_->cbElements = sizeof(float);
  array_->fFeatures |= FADF_FIXEDSIZE;
  array_->cLocks = 1;
}

ScratchArray::~ScratchArray() {
  array_->pvData = nullptr;
  array_->cLocks = 0;
  SafeArrayDestroyDescriptor(array_);
}

SAFEARRAY* ScratchArray::Prepare(std::size_t count) {
  if (count > std::numeric_limits<ULONG>::max() / sizeof(float)) throw std::bad_alloc();
  if (count > capacity_) {
    array_->pvData = nullptr;
    buffer_.reset();
    capacity_ = count_ = 0;
    buffer_.reset(new float[count]);
    capacity_ = count;
  }
  count_ = count;
  std::fill_n(buffer_.get(), count, 0.0F);
  array_->pvData = buffer_.get();
  array_->rgsabound[0] = {static_cast<ULONG>(count), 0};
  return array_;
}

std::span<float> ScratchArray::samples() noexcept {
  return {buffer_.get(), std::min<std::size_t>(count_, array_->rgsabound[0].cElements)};
}

std::span<const float> ScratchArray::samples() const noexcept {
  return {buffer_.get(), std::min<std::size_t>(count_, array_->rgsabound[0].cElements)};
}

std::unique_ptr<ScratchArray> ScratchCache::Take() {
  std::unique_ptr<ScratchArray> array(kept_.exchange(nullptr));
  return array != nullptr ? std::move(array) : std::make_unique<ScratchArray>();
}

void ScratchCache::GiveBack(std::unique_ptr<ScratchArray> array) noexcept {
  if (array->capacity() > kMaxKeptSamples) return;
  delete kept_.exchange(array.release());
}

}  // namespace marlinda
