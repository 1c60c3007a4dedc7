// Answers that all export filters give in the same way.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <cstdint>
#include <string>

#include "core/com_call.h"
#include "core/module.h"
#include "core/resource.h"
#include "core/text.h"

namespace marlinda {

inline constexpr DWORD kCancelPollMilliseconds = 100;

inline HRESULT Answer(VARIANT_BOOL* out, bool yes) noexcept {
  if (out == nullptr) return E_POINTER;
  *out = yes ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

// E_FAIL when there is nothing to write, of which no part can be told.
inline HRESULT AnswerProgress(FLOAT* out, std::int64_t position, std::int64_t total) noexcept {
  if (out == nullptr) return E_POINTER;
  if (total <= 0) return E_FAIL;
  *out = static_cast<float>(static_cast<double>(position) / static_cast<double>(total));
  return S_OK;
}

inline HRESULT AnswerTaskName(BSTR* out, const std::string& file_name) noexcept {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  return ComCall([&] {
    *out = ToBstr(Format(TheModule().LoadText(IDS_SAVING), file_name));
    return S_OK;
  });
}

}  // namespace marlinda
