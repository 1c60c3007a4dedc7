// Converts between the host's UTF-8, the UTF-16 of Windows and COM, and the engine's code page.
#pragma once

#include <ole2.h>

#include <new>
#include <string>
#include <string_view>

namespace marlinda {

std::wstring Widen(std::string_view utf8);
std::string Narrow(std::wstring_view wide);
// Converts text from the engine's code page, up to its NUL.
std::string FromAnsi(const char* text);

// True if the engine can hold the text unchanged. The engine stores text in the system's ANSI code
// page.
bool FitsCodePage(const std::wstring& text);

// A BSTR for an interface call.
class Bstr {
 public:
  Bstr() = default;
  explicit Bstr(const std::wstring& text)
      : text_(SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {
    if (text_ == nullptr) throw std::bad_alloc();
  }
  explicit Bstr(std::string_view utf8) : Bstr(Widen(utf8)) {}
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  ~Bstr() { SysFreeString(text_); }

  BSTR get() const { return text_; }
  // Frees the text and returns the pointer's address, for an out parameter.
  BSTR* Receive() {
    SysFreeString(text_);
    text_ = nullptr;
    return &text_;
  }
  std::string utf8() const { return Narrow({text_, SysStringLen(text_)}); }

 private:
  BSTR text_ = nullptr;
};

}  // namespace marlinda
