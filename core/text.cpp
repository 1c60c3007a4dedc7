#include "core/text.h"

#include <new>

#include "core/com_call.h"

namespace marlinda {

namespace {

std::string ToAnsi(std::wstring_view text) {
  const int length = static_cast<int>(text.size());
  if (length == 0) return {};
  const int size =
      WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  if (size <= 0) throw HResultError(LastErrorResult());
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_ACP, 0, text.data(), length, result.data(), size, nullptr, nullptr);
  // Cuts the text at its first NUL, as files and system functions do.
  return result.substr(0, result.find('\0'));
}

std::string Replace(std::string_view pattern, std::string_view mark, std::string_view argument) {
  std::string result;
  for (;;) {
    const std::size_t place = pattern.find(mark);
    result += pattern.substr(0, place);
    if (place == std::string_view::npos) return result;
    result += argument;
    pattern.remove_prefix(place + mark.size());
  }
}

}  // namespace

std::string ToAnsi(BSTR text) { return ToAnsi(std::wstring_view(text, SysStringLen(text))); }

std::string Utf8ToAnsi(std::string_view text) {
  const int length = static_cast<int>(text.size());
  const int size =
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, nullptr, 0);
  if (size <= 0) return std::string(text);
  std::wstring wide(static_cast<std::size_t>(size), L'\0');
  MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, wide.data(), size);
  return ToAnsi(wide);
}

BSTR ToBstr(std::string_view text, UINT code_page) {
  const int length = static_cast<int>(text.size());
  int size = 0;
  if (length > 0) {
    size = MultiByteToWideChar(code_page, 0, text.data(), length, nullptr, 0);
    if (size <= 0) throw HResultError(LastErrorResult());
  }
  BSTR result = SysAllocStringLen(nullptr, static_cast<UINT>(size));
  if (result == nullptr) throw std::bad_alloc();
  if (size > 0) MultiByteToWideChar(code_page, 0, text.data(), length, result, size);
  return result;
}

std::string Format(std::string_view pattern, std::string_view argument) {
  return Replace(pattern, "%s", argument);
}

std::string Format(std::string_view pattern, int argument) {
  return Replace(pattern, "%d", std::to_string(argument));
}

}  // namespace marlinda
