// Helpers of the clients in this folder: objects, interfaces, texts and arrays.
#pragma once

#include <windows.h>
// The headers below need windows.h first.
#include <marlinda.h>
#include <wrl/client.h>

#include <cstdio>
#include <string>

using Microsoft::WRL::ComPtr;

// If `hr` is a failure, ends the program with a message that names `file` and the step `what`. A
// real host would inform its user.
inline void Check(HRESULT hr, const char* what, const wchar_t* file = L"") {
  if (SUCCEEDED(hr)) return;
  wchar_t reason[256] = L"\n";
  FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                 static_cast<DWORD>(hr), 0, reason, 256, nullptr);
  std::fwprintf(stderr, L"%hs%hs%ls failed with 0x%08lX: %ls", what, *file == 0 ? "" : " ", file,
                static_cast<unsigned long>(hr), reason);
  ExitProcess(1);
}

template <class I>
ComPtr<I> Create(REFCLSID class_id) {
  ComPtr<I> object;
  Check(CoCreateInstance(class_id, nullptr, CLSCTX_INPROC_SERVER, __uuidof(I),
                         reinterpret_cast<void**>(object.GetAddressOf())),
        "creating an object");
  return object;
}

template <class I>
ComPtr<I> Query(IUnknown* object) {
  ComPtr<I> result;
  Check(object->QueryInterface(__uuidof(I), reinterpret_cast<void**>(result.GetAddressOf())),
        "asking for an interface");
  return result;
}

// Owns a BSTR, the type of the engine's text parameters.
class Text {
 public:
  explicit Text(const std::wstring& text) : text_(SysAllocString(text.c_str())) {
    if (text_ == nullptr) Check(E_OUTOFMEMORY, "making a text");
  }
  ~Text() { SysFreeString(text_); }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  operator BSTR() const { return text_; }

 private:
  BSTR text_;
};

// An array of floats for the engine, here one stereo frame for an IAudioWriter:
//   Floats block(2);
//   block[0] = block[1] = 0.5F;
//   Check(writer->WriteAudio(block), "WriteAudio");
class Floats {
 public:
  explicit Floats(ULONG count) : array_(SafeArrayCreateVector(VT_R4, 0, count)) {
    if (array_ == nullptr) Check(E_OUTOFMEMORY, "making an array");
  }
  ~Floats() { SafeArrayDestroy(array_); }
  Floats(const Floats&) = delete;
  Floats& operator=(const Floats&) = delete;
  operator SAFEARRAY*() const { return array_; }
  float& operator[](ULONG index) { return static_cast<float*>(array_->pvData)[index]; }
  float operator[](ULONG index) const { return static_cast<const float*>(array_->pvData)[index]; }

 private:
  SAFEARRAY* array_;
};
