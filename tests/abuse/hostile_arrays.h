// Sample arrays as a host should never pass them, and proper ones between pages that nobody may
// touch: an access outside the samples ends the program.
#pragma once

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "tests/support/com_client.h"

namespace marlinda::testing {

using SharedArray = std::shared_ptr<SAFEARRAY>;

inline constexpr std::size_t kProperElements = 2048;

// The samples end right before a forbidden page or begin right after one.
inline SharedArray Guarded(std::size_t count = kProperElements, bool at_end = true,
                           float value = 0.25F) {
  constexpr std::size_t kPage = 4096;
  const std::size_t bytes = count * sizeof(float);
  const std::size_t room = (bytes + kPage - 1) / kPage * kPage;
  auto* const pages =
      static_cast<char*>(VirtualAlloc(nullptr, room + 2 * kPage, MEM_RESERVE, PAGE_NOACCESS));
  SAFEARRAY* array = nullptr;
  if (pages == nullptr ||
      (room > 0 && !VirtualAlloc(pages + kPage, room, MEM_COMMIT, PAGE_READWRITE)) ||
      FAILED(SafeArrayAllocDescriptorEx(VT_R4, 1, &array))) {
    throw std::bad_alloc();
  }
  auto* const samples = reinterpret_cast<float*>(pages + kPage + (at_end ? room - bytes : 0));
  std::fill_n(samples, count, value);
  array->pvData = samples;
  array->rgsabound[0] = {static_cast<ULONG>(count), 0};
  return {array, [pages](SAFEARRAY* given) {
            given->cLocks = 0;
            given->pvData = nullptr;
            SafeArrayDestroyDescriptor(given);
            VirtualFree(pages, 0, MEM_RELEASE);
          }};
}

// What a method must return.
enum class Verdict {
  kAny,
  kPointer,      // E_POINTER
  kInvalid,      // E_INVALIDARG
  kFail,         // some failure
  kAsTheProper,  // what it returns for a proper array
};

struct ArrayCase {
  std::string name;
  Verdict verdict;
  std::function<SharedArray()> make;
};

inline std::vector<ArrayCase> MakeArrayMatrix() {
  std::vector<ArrayCase> cases = {{"null", Verdict::kInvalid, [] { return SharedArray(); }}};
  const auto add_foreign = [&](VARTYPE type, UINT dimensions) {
    cases.push_back({"of type " + std::to_string(type), Verdict::kInvalid, [=] {
                       const auto array = std::make_shared<ForeignArray>(type, dimensions);
                       return SharedArray(array, *array);
                     }});
  };
  const auto add_changed = [&](std::string name, Verdict verdict, auto change) {
    cases.push_back({std::move(name), verdict, [=] {
                       auto array = Guarded();
                       change(*array);
                       return array;
                     }});
  };
  add_foreign(VT_R4, 2);
  constexpr VARTYPE kNoType = 15;
  for (VARTYPE type = VT_I2; type <= VT_UINT; ++type) {
    if (type != VT_R4 && type != kNoType) add_foreign(type, 1);
  }
  add_changed("without data", Verdict::kInvalid, [](SAFEARRAY& array) { array.pvData = nullptr; });
  for (const ULONG elements : {0x40000000UL, 0x80000000UL, 0xFFFFFFFFUL}) {
    add_changed("that promises " + std::to_string(elements), Verdict::kInvalid,
                [=](SAFEARRAY& array) { array.rgsabound[0].cElements = elements; });
  }
  using Bounds = std::numeric_limits<LONG>;
  for (const LONG bound : {Bounds::min(), -1L, 5L, Bounds::max()}) {
    add_changed("from " + std::to_string(bound), Verdict::kAsTheProper,
                [=](SAFEARRAY& array) { array.rgsabound[0].lLbound = bound; });
  }
  for (const USHORT locks : {USHORT{1}, USHORT{0xFFFF}}) {
    add_changed("locked " + std::to_string(locks) + " times",
                locks == 1 ? Verdict::kAsTheProper : Verdict::kFail,
                [=](SAFEARRAY& array) { array.cLocks = locks; });
  }
  for (const std::size_t count : {0, 1, 2, 3, 511, 2047, 2048, 2049, 65537}) {
    for (const bool at_end : {true, false}) {
      cases.push_back(
          {"of " + std::to_string(count), Verdict::kAny, [=] { return Guarded(count, at_end); }});
    }
  }
  using Values = std::numeric_limits<float>;
  for (const float value : {Values::quiet_NaN(), Values::signaling_NaN(), -Values::infinity(),
                            Values::max(), Values::denorm_min()}) {
    cases.push_back({"full of " + std::to_string(value), Verdict::kAsTheProper,
                     [=] { return Guarded(kProperElements, true, value); }});
  }
  return cases;
}

inline const std::vector<ArrayCase>& ArrayMatrix() {
  static const std::vector<ArrayCase> matrix = MakeArrayMatrix();
  return matrix;
}

}  // namespace marlinda::testing
