// CRegistry: the little registry access that the engine needs, on one open key at a time. Names and
// texts are ANSI.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "core/handle.h"

namespace marlinda {

// Where the application keeps its settings, below HKEY_CURRENT_USER and HKEY_LOCAL_MACHINE.
inline constexpr char kSettingsKey[] = "Software\\Brevant\\Cutloom";

class CRegistry {
 public:
  // Opens `subkey`, closing a key that is open, and returns the Win32 error. A key that does not
  // exist is created, also in read-only mode.
  LONG Open(HKEY root, const std::string& subkey, bool read_only) noexcept;
  void Close() noexcept { key_.Reset(); }

  // The default when there is no such value, no key is open, or the value is longer than 4 bytes.
  DWORD ReadDword(const char* name, DWORD default_value) const noexcept;
  // Errors are dropped: a setting that cannot be stored keeps its old value.
  void WriteDword(const char* name, DWORD value) const noexcept;

  // The text up to its first NUL; the default when there is no such value, no key is open, or the
  // value does not fit in 255 bytes, terminator included.
  std::string ReadString(const char* name, const std::string& default_value) const;

  // Appends the values of type REG_SZ in the system's order; values of other types are skipped.
  // A value whose name or data does not fit in 100 bytes, terminator included, ends the
  // enumeration. The values behind it are not read.
  void EnumStringValues(std::vector<std::string>& names, std::vector<std::string>& datas) const;

 private:
  RegistryKey key_;
};

}  // namespace marlinda
