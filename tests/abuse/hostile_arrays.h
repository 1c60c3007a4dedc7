// Sample arrays as a host should never pass them, and proper ones between pages that nobody may
// touch: an access outside the samples ends the program.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace marlinda::testing {

struct DestroyArray {
  void operator()(SAFEARRAY* array) const noexcept;
};
using ArrayOwner = std::unique_ptr<SAFEARRAY, DestroyArray>;

// A float array whose samples end right before a forbidden page or begin right after one.
class GuardedFloats {
 public:
  enum class Side { kAfter, kBefore };
  explicit GuardedFloats(std::size_t count, Side side = Side::kAfter, float value = 0.25F,
                         LONG lower_bound = 0);
  GuardedFloats(const GuardedFloats&) = delete;
  GuardedFloats& operator=(const GuardedFloats&) = delete;
  ~GuardedFloats();

  SAFEARRAY* get() const noexcept { return array_; }

 private:
  void* pages_ = nullptr;
  SAFEARRAY* array_ = nullptr;
};

// What a method must make of an array.
enum class Verdict {
  kRefuse,       // E_INVALIDARG
  kFail,         // some failure
  kAsTheProper,  // what it says of a proper array with the same number of elements
  kAny,
};

struct ArrayCase {
  std::string name;
  Verdict verdict;
  // For kAsTheProper.
  std::size_t elements;
  // The array, and what keeps it alive.
  std::function<std::shared_ptr<SAFEARRAY>()> make;
};

const std::vector<ArrayCase>& ArrayMatrix();

// An array that a well-behaved host would pass.
std::shared_ptr<SAFEARRAY> ProperArray(std::size_t elements);

}  // namespace marlinda::testing
