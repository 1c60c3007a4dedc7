#include "host/wide_text.h"

namespace marlinda {

namespace {

std::wstring Decode(UINT code_page, std::string_view text) {
  const auto size = static_cast<int>(text.size());
  const int count = MultiByteToWideChar(code_page, 0, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(count), L'\0');
  MultiByteToWideChar(code_page, 0, text.data(), size, wide.data(), count);
  return wide;
}

}  // namespace

std::wstring Widen(std::string_view utf8) { return Decode(CP_UTF8, utf8); }

std::string Narrow(std::wstring_view wide) {
  const auto size = static_cast<int>(wide.size());
  const int count =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(count), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), count, nullptr, nullptr);
  return utf8;
}

std::string FromAnsi(const char* text) { return Narrow(Decode(CP_ACP, text)); }

bool FitsCodePage(const std::wstring& text) {
  // UTF-8 can hold every text, and WideCharToMultiByte rejects these arguments for UTF-8.
  if (text.empty() || GetACP() == CP_UTF8) return true;
  BOOL lost = FALSE;
  const int count = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(),
                                        static_cast<int>(text.size()), nullptr, 0, nullptr, &lost);
  return count > 0 && lost == FALSE;
}

}  // namespace marlinda
