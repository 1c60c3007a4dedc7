#include "host/wide_text.h"

namespace marlinda {

std::wstring Widen(std::string_view utf8) {
  const auto size = static_cast<int>(utf8.size());
  const int count = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(count), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), count);
  return wide;
}

std::string Narrow(std::wstring_view wide) {
  const auto size = static_cast<int>(wide.size());
  const int count =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(count), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), count, nullptr, nullptr);
  return utf8;
}

std::string FromAnsi(const char* text) {
  const int count = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(count), L'\0');
  MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), count);
  return Narrow(wide.c_str());
}

bool FitsCodePage(const std::wstring& text) {
  // UTF-8 can hold every text, and WideCharToMultiByte rejects these arguments for UTF-8.
  if (text.empty() || GetACP() == CP_UTF8) return true;
  BOOL lost = FALSE;
  const int count = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(),
                                        static_cast<int>(text.size()), nullptr, 0, nullptr, &lost);
  return count > 0 && lost == FALSE;
}

}  // namespace marlinda
