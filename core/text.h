// Strings. Text inside the engine is ANSI (the system's code page); interfaces carry BSTRs.
// Characters outside the code page are lost.
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

// A BSTR as ANSI text. A null BSTR is the empty string.
std::string ToAnsi(BSTR text);

// UTF-8 text of a file as ANSI text. Text that is not UTF-8 is returned unchanged: older programs
// wrote such fields in the code page.
std::string Utf8ToAnsi(std::string_view text);

// ANSI text as a new BSTR that the caller frees. Uses the code page of the thread's locale unless
// another is given. Throws std::bad_alloc.
BSTR ToBstr(std::string_view text, UINT code_page = CP_THREAD_ACP);

// A resource text with every "%s" replaced by `argument`.
std::string Format(std::string_view pattern, std::string_view argument);

// A resource text with every "%d" replaced by `argument`.
std::string Format(std::string_view pattern, int argument);

}  // namespace marlinda
