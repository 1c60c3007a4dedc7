// One implementation for all of COM's enumerator interfaces.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "core/com_call.h"
#include "core/module.h"
#include "core/plain_object.h"

namespace marlinda {

// Enumerates its own copy of a list. `kHandOut` copies an entry for the caller. If kHandOut fails,
// Next returns the failure.
template <class Interface, class Entry, class Out, HRESULT (*kHandOut)(const Entry&, Out*)>
class Enumerator final : public PlainObject<Interface> {
 public:
  // Throws std::bad_alloc. Call it inside ComCall.
  static HRESULT Create(std::vector<Entry> entries, Interface** enumerator) {
    *enumerator = new Enumerator(std::move(entries), 0);
    return S_OK;
  }

  STDMETHODIMP Next(ULONG wanted, Out* out, ULONG* fetched) override {
    if (fetched != nullptr) *fetched = 0;
    if (out == nullptr || (fetched == nullptr && wanted != 1)) return E_POINTER;
    ULONG given = 0;
    for (; given < wanted && next_ < entries_.size(); ++given, ++next_) {
      const HRESULT hr = kHandOut(entries_[next_], out + given);
      if (FAILED(hr)) return hr;
      if (fetched != nullptr) *fetched = given + 1;
    }
    return given == wanted ? S_OK : S_FALSE;
  }
  STDMETHODIMP Skip(ULONG wanted) override {
    const std::size_t count = std::min<std::size_t>(wanted, entries_.size() - next_);
    next_ += count;
    return count == wanted ? S_OK : S_FALSE;
  }
  STDMETHODIMP Reset() override {
    next_ = 0;
    return S_OK;
  }
  STDMETHODIMP Clone(Interface** clone) override {
    if (clone == nullptr) return E_POINTER;
    *clone = nullptr;
    return ComCall([&] { *clone = new Enumerator(entries_, next_); });
  }

 private:
  Enumerator(std::vector<Entry> entries, std::size_t next)
      : entries_(std::move(entries)), next_(next) {}
  ~Enumerator() override = default;

  const ModuleObjectCount module_count_;
  const std::vector<Entry> entries_;
  std::size_t next_;
};

}  // namespace marlinda
