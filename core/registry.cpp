#include "core/registry.h"

#include <algorithm>

namespace marlinda {
namespace {

// A registry text may lack its terminator or contain a NUL before its end.
std::string TextOf(const char* data, DWORD size) {
  return std::string(data, std::find(data, data + size, '\0'));
}

}  // namespace

LONG CRegistry::Open(HKEY root, const std::string& subkey, bool read_only) noexcept {
  char no_class[] = "";
  DWORD disposition = 0;
  return RegCreateKeyExA(root, subkey.c_str(), 0, no_class, REG_OPTION_NON_VOLATILE,
                         read_only ? KEY_READ : KEY_ALL_ACCESS, nullptr, key_.Receive(),
                         &disposition);
}

DWORD CRegistry::ReadDword(const char* name, DWORD default_value) const noexcept {
  DWORD value = default_value;
  DWORD size = sizeof value;
  const LONG error =
      RegQueryValueExA(key_.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
  return error == ERROR_SUCCESS ? value : default_value;
}

void CRegistry::WriteDword(const char* name, DWORD value) const noexcept {
  RegSetValueExA(key_.get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                 sizeof value);
}

std::string CRegistry::ReadString(const char* name, const std::string& default_value) const {
  char data[255];
  DWORD size = sizeof data;
  const LONG error =
      RegQueryValueExA(key_.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(data), &size);
  return error == ERROR_SUCCESS ? TextOf(data, size) : default_value;
}

void CRegistry::EnumStringValues(std::vector<std::string>& names,
                                 std::vector<std::string>& datas) const {
  for (DWORD index = 0;; ++index) {
    char name[100];
    char data[100];
    DWORD name_length = sizeof name;
    DWORD data_size = sizeof data;
    DWORD type = REG_NONE;
    const LONG error = RegEnumValueA(key_.get(), index, name, &name_length, nullptr, &type,
                                     reinterpret_cast<BYTE*>(data), &data_size);
    if (error != ERROR_SUCCESS) return;
    if (type != REG_SZ) continue;
    names.emplace_back(name, name_length);
    datas.push_back(TextOf(data, data_size));
  }
}

}  // namespace marlinda
