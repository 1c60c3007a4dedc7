// Texts as out-parameters of interface methods.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <initializer_list>
#include <string_view>

namespace marlinda {

struct OutText {
  BSTR* out;
  std::string_view text;
};

// Hands out all of the texts or none.
HRESULT HandOut(std::initializer_list<OutText> texts) noexcept;

}  // namespace marlinda
