// Adds the content of registry scripts to the registry, or removes this content. The scripts are
// resources of the module. A line of a script is a key ("KEY"), a key with its default value
// ("KEY = TEXT") or a named value ("KEY @VALUE = TEXT"), below HKEY_CLASSES_ROOT. %NAME% stands for
// a replacement. A key without a line of its own is never removed.
#pragma once

#include <windows.h>

#include <span>
#include <string>

#include "core/class_table.h"

namespace marlinda {

std::wstring ToText(REFGUID guid);

// Sets the thread's locale to the system's, so that registry texts do not depend on the user.
class SystemLocale {
 public:
  SystemLocale() noexcept { SetThreadLocale(LOCALE_SYSTEM_DEFAULT); }
  SystemLocale(const SystemLocale&) = delete;
  SystemLocale& operator=(const SystemLocale&) = delete;
  ~SystemLocale() { SetThreadLocale(previous_); }

 private:
  const LCID previous_ = GetThreadLocale();
};

// One registration or unregistration. The thread has the system's locale while the object exists.
// Each method throws HResultError at the first change that fails. Earlier changes stay.
class Registration {
 public:
  // Reads the environment variable TESSALY_REGISTRATION. "user" selects the current user. "machine"
  // or no value selects the machine. Throws HResultError with E_INVALIDARG for any other value.
  Registration();

  bool is_per_user() const noexcept { return is_per_user_; }

  // Writes the content of script `id`. If the script has placeholders of a class, such as %CLSID%,
  // pass that class as `of`. Other keys and values stay unchanged.
  void Register(UINT id, const ClassEntry* of = nullptr) const;
  // Removes the content of script `id`, last line first. Keeps keys with other values or subkeys.
  void Unregister(UINT id, const ClassEntry* of = nullptr) const;

  // Register or unregister each of `classes` with the script IDR_CLASS_REGISTRATION.
  void RegisterClasses(std::span<const ClassEntry> classes) const;
  void UnregisterClasses(std::span<const ClassEntry> classes) const;

  // True if key `path` exists below HKEY_CLASSES_ROOT or, if per user, below the user's classes.
  bool HasKey(const std::wstring& path) const;

 private:
  std::wstring FullPath(const std::wstring& path) const;

  const SystemLocale locale_;
  bool is_per_user_ = false;
  HKEY root_ = HKEY_CLASSES_ROOT;
};

}  // namespace marlinda
