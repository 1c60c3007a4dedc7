#include "tests/abuse/hostile_arrays.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

namespace marlinda::testing {
namespace {

constexpr std::size_t kPage = 4096;

std::shared_ptr<SAFEARRAY> Guarded(std::size_t count, GuardedFloats::Side side, float value = 0.25F,
                                   LONG lower_bound = 0) {
  auto floats = std::make_shared<GuardedFloats>(count, side, value, lower_bound);
  return {floats, floats->get()};
}

std::shared_ptr<SAFEARRAY> Foreign(VARTYPE type, UINT dimensions) {
  std::vector<SAFEARRAYBOUND> bounds(dimensions, SAFEARRAYBOUND{8, 0});
  SAFEARRAY* const array = SafeArrayCreate(type, dimensions, bounds.data());
  if (array == nullptr) throw std::bad_alloc();
  return {array, DestroyArray()};
}

// A proper descriptor that says more than is true.
std::shared_ptr<SAFEARRAY> Lying(ULONG elements, bool data) {
  auto floats = Guarded(8, GuardedFloats::Side::kAfter);
  void* const samples = floats->pvData;
  floats->rgsabound[0].cElements = elements;
  if (!data) floats->pvData = nullptr;
  return {floats.get(), [floats, samples](SAFEARRAY* array) {
            array->rgsabound[0].cElements = 8;
            array->pvData = samples;
          }};
}

std::shared_ptr<SAFEARRAY> Locked(USHORT locks) {
  auto floats = Guarded(2048, GuardedFloats::Side::kAfter);
  floats->cLocks = locks;
  return floats;
}

std::vector<ArrayCase> MakeMatrix() {
  using Side = GuardedFloats::Side;
  std::vector<ArrayCase> cases;
  const auto add = [&](std::string name, Verdict verdict, std::size_t elements, auto make) {
    cases.push_back({std::move(name), verdict, elements, make});
  };
  add("null", Verdict::kRefuse, 0, [] { return std::shared_ptr<SAFEARRAY>(); });
  add("without data", Verdict::kRefuse, 0, [] { return Lying(8, false); });
  add("of two dimensions", Verdict::kRefuse, 0, [] { return Foreign(VT_R4, 2); });
  for (const VARTYPE type :
       {VT_I1,    VT_UI1,     VT_I2,   VT_UI2,     VT_I4,      VT_UI4,     VT_INT,
        VT_UINT,  VT_I8,      VT_UI8,  VT_R8,      VT_CY,      VT_DATE,    VT_BOOL,
        VT_ERROR, VT_DECIMAL, VT_BSTR, VT_VARIANT, VT_UNKNOWN, VT_DISPATCH}) {
    add("of type " + std::to_string(type), Verdict::kRefuse, 0, [=] { return Foreign(type, 1); });
  }
  for (const ULONG elements : {0x40000000UL, 0x7FFFFFFFUL, 0x80000000UL, 0xFFFFFFFFUL}) {
    add("that promises " + std::to_string(elements), Verdict::kRefuse, 0,
        [=] { return Lying(elements, true); });
  }
  for (const std::size_t count : {0, 1, 2, 3, 4, 511, 2047, 2048, 2049, 65537}) {
    const std::string text = std::to_string(count) + " elements";
    add(text + " before a forbidden page", Verdict::kAny, count,
        [=] { return Guarded(count, Side::kAfter); });
    add(text + " after a forbidden page", Verdict::kAny, count,
        [=] { return Guarded(count, Side::kBefore); });
  }
  for (const LONG bound :
       {std::numeric_limits<LONG>::min(), -2048L, -1L, 5L, std::numeric_limits<LONG>::max() - 2047L,
        std::numeric_limits<LONG>::max()}) {
    add("from " + std::to_string(bound), Verdict::kAsTheProper, 2048,
        [=] { return Guarded(2048, Side::kAfter, 0.25F, bound); });
  }
  add("locked", Verdict::kAsTheProper, 2048, [] { return Locked(1); });
  add("locked as often as can be", Verdict::kFail, 2048, [] { return Locked(0xFFFF); });
  using Limits = std::numeric_limits<float>;
  for (const float value : {Limits::quiet_NaN(), Limits::signaling_NaN(), Limits::infinity(),
                            -Limits::infinity(), Limits::max(), Limits::denorm_min(), -0.0F}) {
    add("of " + std::to_string(value), Verdict::kAsTheProper, 2048,
        [=] { return Guarded(2048, Side::kAfter, value); });
  }
  return cases;
}

}  // namespace

void DestroyArray::operator()(SAFEARRAY* array) const noexcept { SafeArrayDestroy(array); }

GuardedFloats::GuardedFloats(std::size_t count, Side side, float value, LONG lower_bound) {
  const std::size_t bytes = count * sizeof(float);
  const std::size_t room = (bytes + kPage - 1) / kPage * kPage;
  pages_ = VirtualAlloc(nullptr, room + 2 * kPage, MEM_RESERVE, PAGE_NOACCESS);
  if (pages_ == nullptr) throw std::bad_alloc();
  char* const begin = static_cast<char*>(pages_) + kPage;
  if (room > 0 && VirtualAlloc(begin, room, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
    VirtualFree(pages_, 0, MEM_RELEASE);
    throw std::bad_alloc();
  }
  auto* const samples =
      reinterpret_cast<float*>(side == Side::kAfter ? begin + room - bytes : begin);
  std::fill_n(samples, count, value);
  if (FAILED(SafeArrayAllocDescriptorEx(VT_R4, 1, &array_))) {
    VirtualFree(pages_, 0, MEM_RELEASE);
    throw std::bad_alloc();
  }
  array_->pvData = samples;
  array_->rgsabound[0] = {static_cast<ULONG>(count), lower_bound};
}

GuardedFloats::~GuardedFloats() {
  array_->cLocks = 0;
  array_->pvData = nullptr;
  SafeArrayDestroyDescriptor(array_);
  VirtualFree(pages_, 0, MEM_RELEASE);
}

const std::vector<ArrayCase>& ArrayMatrix() {
  static const std::vector<ArrayCase> matrix = MakeMatrix();
  return matrix;
}

std::shared_ptr<SAFEARRAY> ProperArray(std::size_t elements) {
  return Guarded(elements, GuardedFloats::Side::kAfter);
}

}  // namespace marlinda::testing
