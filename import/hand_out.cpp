#include "import/hand_out.h"

#include <utility>

#include "core/com_call.h"
#include "core/text.h"

namespace marlinda {

HRESULT HandOut(std::initializer_list<OutText> texts) noexcept {
  for (const OutText& each : texts) {
    if (each.out == nullptr) return E_POINTER;
  }
  for (const OutText& each : texts) *each.out = nullptr;
  const HRESULT hr = ComCall([&] {
    for (const OutText& each : texts) *each.out = ToBstr(each.text);
    return S_OK;
  });
  if (SUCCEEDED(hr)) return hr;
  for (const OutText& each : texts) SysFreeString(std::exchange(*each.out, nullptr));
  return hr;
}

}  // namespace marlinda
