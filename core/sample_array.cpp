#include "core/sample_array.h"

#include <algorithm>
#include <limits>
#include <new>

namespace marlinda {
namespace {

bool HoldsFloats(SAFEARRAY* array) noexcept {
  if (array->cDims != 1 || array->cbElements != sizeof(float)) return false;
  if ((array->fFeatures & FADF_HAVEVARTYPE) == 0) {
    // If a client, not the system, filled in the descriptor, the descriptor stores no type. The
    // elements then count as floats unless a flag names another type.
    return (array->fFeatures & (FADF_BSTR | FADF_UNKNOWN | FADF_DISPATCH | FADF_VARIANT |
                                FADF_RECORD | FADF_HAVEIID)) == 0;
  }
  VARTYPE type = VT_EMPTY;
  return SUCCEEDED(SafeArrayGetVartype(array, &type)) && type == VT_R4;
}

// Automation counts an array's bytes in 32 bits. Some platforms do not check this limit and
// allocate too little memory for a larger array.
constexpr std::size_t kMaxSamples = std::numeric_limits<ULONG>::max() / sizeof(float);

std::size_t Checked(std::size_t count) {
  if (count > kMaxSamples) throw std::bad_alloc();
  return count;
}

// ScratchCache frees larger arrays. 8 MiB is enough for a waveform overview on the widest screens.
constexpr std::size_t kMaxKeptSamples = std::size_t{1} << 21;

}  // namespace

SampleArrayView::~SampleArrayView() {
  if (array_ != nullptr) SafeArrayUnaccessData(array_);
}

HRESULT SampleArrayView::Lock(SAFEARRAY* array) noexcept {
  if (array_ != nullptr) return E_UNEXPECTED;
  if (array == nullptr || !HoldsFloats(array)) return E_INVALIDARG;
  const std::size_t count = array->rgsabound[0].cElements;
  if (count > kMaxSamples || (count > 0 && array->pvData == nullptr)) return E_INVALIDARG;
  void* data = nullptr;
  const HRESULT hr = SafeArrayAccessData(array, &data);
  if (FAILED(hr)) return hr;
  array_ = array;
  samples_ = {static_cast<float*>(data), count};
  return S_OK;
}

SampleArray::SampleArray(std::size_t count) : buffer_(Checked(count)) {
  // Even an array without samples needs a pvData that is not null.
  buffer_.reserve(1);
  if (FAILED(SafeArrayAllocDescriptorEx(VT_R4, 1, &array_))) throw std::bad_alloc();
  array_->cbElements = sizeof(float);
  array_->fFeatures |= FADF_FIXEDSIZE;
  array_->cLocks = 1;
  Resize(count);
}

SampleArray::~SampleArray() {
  array_->pvData = nullptr;
  array_->cLocks = 0;
  SafeArrayDestroyDescriptor(array_);
}

void SampleArray::Resize(std::size_t count) {
  buffer_.resize(Checked(count));
  array_->pvData = buffer_.data();
  array_->rgsabound[0] = {static_cast<ULONG>(count), 0};
}

SAFEARRAY* SampleArray::Prepare(std::size_t count) {
  Resize(0);
  // Frees the old memory before it allocates, so that both blocks never exist at once.
  if (count > buffer_.capacity()) std::vector<float>().swap(buffer_);
  Resize(count);
  return array_;
}

std::size_t SampleArray::Count() const noexcept {
  return std::min<std::size_t>(buffer_.size(), array_->rgsabound[0].cElements);
}

std::unique_ptr<SampleArray> ScratchCache::Take() {
  std::unique_ptr<SampleArray> array(kept_.exchange(nullptr));
  return array != nullptr ? std::move(array) : std::make_unique<SampleArray>();
}

void ScratchCache::GiveBack(std::unique_ptr<SampleArray> array) noexcept {
  if (array->capacity() > kMaxKeptSamples) return;
  delete kept_.exchange(array.release());
}

}  // namespace marlinda
