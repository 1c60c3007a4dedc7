// Conversions of texts. The engine keeps texts in the system's ANSI code page. Interfaces pass
// BSTRs. Characters outside the code page are lost.
#pragma once

#include <ole2.h>

#include <string>
#include <string_view>

#include "core/handle.h"

namespace marlinda {

struct BstrTraits {
  using Raw = BSTR;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { SysFreeString(raw); }
};

// Owns a BSTR, such as a method's result.
using OwnedBstr = Handle<BstrTraits>;

// Returns a BSTR as ANSI text. A null BSTR is the empty string.
std::string ToAnsi(BSTR text);

// Converts UTF-8 text of a file to ANSI. Returns text that is not UTF-8 unchanged, because older
// programs wrote ANSI text.
std::string Utf8ToAnsi(std::string_view text);

// Returns ANSI text as a new BSTR, which the caller frees. `code_page` defaults to that of the
// thread's locale. Throws std::bad_alloc, and HResultError if the conversion fails.
BSTR ToBstr(std::string_view text, UINT code_page = CP_THREAD_ACP);

// Returns `pattern` with every "%s" replaced by `argument`.
std::string Format(std::string_view pattern, std::string_view argument);

// Returns `pattern` with every "%d" replaced by `argument`.
std::string Format(std::string_view pattern, int argument);

}  // namespace marlinda
