// Enters a COM apartment for the life of the object.
#pragma once

#include <objbase.h>

namespace marlinda {

class Apartment {
 public:
  // `model` is COINIT_APARTMENTTHREADED or COINIT_MULTITHREADED. A thread that is already in the
  // other kind of apartment stays in that apartment.
  explicit Apartment(DWORD model) noexcept : result_(CoInitializeEx(nullptr, model)) {}
  Apartment(const Apartment&) = delete;
  Apartment& operator=(const Apartment&) = delete;
  ~Apartment() {
    if (SUCCEEDED(result_)) CoUninitialize();
  }

  // The result of CoInitializeEx.
  HRESULT result() const noexcept { return result_; }

 private:
  const HRESULT result_;
};

}  // namespace marlinda
