#include "core/module.h"

#include <cstddef>

namespace marlinda {

std::wstring CMarlindaModule::Path() const {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length =
        GetModuleFileNameW(instance_, path.data(), static_cast<DWORD>(path.size()));
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

bool CMarlindaModule::Unlock() noexcept {
  long locks = locks_;
  while (locks > 0 && !locks_.compare_exchange_weak(locks, locks - 1)) {
  }
  return locks > 0;
}

std::string CMarlindaModule::LoadText(UINT id) const {
  char text[512];
  const int length = LoadStringA(instance_, id, text, static_cast<int>(sizeof text));
  return std::string(text, static_cast<std::size_t>(length > 0 ? length : 0));
}

CMarlindaModule& TheModule() noexcept {
  static CMarlindaModule module;
  return module;
}

}  // namespace marlinda
