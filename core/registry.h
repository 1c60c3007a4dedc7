// CRegistry: registry access to one open key at a time. Names and texts are ANSI.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "core/handle.h"

namespace marlinda {

// The key of the application's settings, below HKEY_CURRENT_USER and HKEY_LOCAL_MACHINE.
inline constexpr char kSettingsKey[] = "Software\\Brevant\\Cutloom";

class CRegistry {
 public:
  // Closes the open key, opens `subkey` and returns the Win32 error. Creates a key that does not
  // exist, even in read-only mode.
  LONG Open(HKEY root, const std::string& subkey, bool read_only) noexcept;
  void Close() noexcept { key_.Reset(); }

  // Returns the default if there is no such value, no key is open, or the value is longer than 4
  // bytes.
  DWORD ReadDword(const char* name, DWORD default_value) const noexcept;
  // Ignores errors: a setting that cannot be stored keeps its old value.
  void WriteDword(const char* name, DWORD value) const noexcept;

  // Returns the text up to its first NUL. Returns the default if there is no such value, no key is
  // open, or the value does not fit in 255 bytes with its terminator.
  std::string ReadString(const char* name, const std::string& default_value) const;

  // Appends the values of type REG_SZ in the system's order and skips other types. Stops at a value
  // whose name or data does not fit in 100 bytes with its terminator.
  void EnumStringValues(std::vector<std::string>& names, std::vector<std::string>& datas) const;

 private:
  RegistryKey key_;
};

}  // namespace marlinda
