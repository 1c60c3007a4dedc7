#include "core/sample_array.h"

#include <limits>
#include <new>
#include <utility>

#include "core/com_call.h"

namespace marlinda {
namespace {

bool HoldsFloats(SAFEARRAY* array) noexcept {
  if (array->cDims != 1 || array->cbElements != sizeof(float)) return false;
  if ((array->fFeatures & FADF_HAVEVARTYPE) == 0) {
    // A descriptor made by hand carries no type; four-byte elements that are no pointers are
    // floats.
    return (array->fFeatures & (FADF_BSTR | FADF_UNKNOWN | FADF_DISPATCH | FADF_VARIANT |
                                FADF_RECORD | FADF_HAVEIID)) == 0;
  }
  VARTYPE type = VT_EMPTY;
  return SUCCEEDED(SafeArrayGetVartype(array, &type)) && type == VT_R4;
}

// Automation counts an array's bytes in 32 bits. Some platforms do not check that, so an array that
// claims more has less memory than it says.
constexpr std::size_t kMaxSamples = std::numeric_limits<ULONG>::max() / sizeof(float);

SAFEARRAY* CreateFloats(std::size_t count) {
  if (count > kMaxSamples) throw std::bad_alloc();
  // Not SafeArrayCreateVector, which puts the data into the descriptor's own block of memory: such
  // an array is not meant to be resized.
  SAFEARRAYBOUND bound = {static_cast<ULONG>(count), 0};
  SAFEARRAY* array = SafeArrayCreate(VT_R4, 1, &bound);
  if (array == nullptr) throw std::bad_alloc();
  return array;
}

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

SampleArray::SampleArray(std::size_t count) : array_(CreateFloats(count)) {}

SampleArray::~SampleArray() {
  if (array_ != nullptr) SafeArrayDestroy(array_);
}

SampleArray::SampleArray(SampleArray&& other) noexcept
    : array_(std::exchange(other.array_, nullptr)) {}

SampleArray& SampleArray::operator=(SampleArray&& other) noexcept {
  std::swap(array_, other.array_);
  return *this;
}

void SampleArray::Resize(std::size_t count) {
  if (array_ == nullptr) {
    array_ = CreateFloats(count);
    return;
  }
  if (samples().size() == count) return;
  if (count > kMaxSamples) throw std::bad_alloc();
  SAFEARRAYBOUND bound = {static_cast<ULONG>(count), 0};
  Check(SafeArrayRedim(array_, &bound));
}

std::span<float> SampleArray::samples() const noexcept {
  if (array_ == nullptr || array_->pvData == nullptr) return {};
  return {static_cast<float*>(array_->pvData), array_->rgsabound[0].cElements};
}

}  // namespace marlinda
