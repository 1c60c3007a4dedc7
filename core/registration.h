// Applies the registry scripts in a module's resources to the registry. A line of a script is a key
// ("KEY"), a key with its default value ("KEY = TEXT") or another value ("KEY @NAME = TEXT"), below
// HKEY_CLASSES_ROOT. %NAME% stands for a replacement. A key without a line of its own is never
// removed.
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

// One registration or unregistration. Meanwhile the thread has the system's locale. Each method
// stops at the first change that fails and throws HResultError; earlier changes stay.
class Registration {
 public:
  // Reads the environment variable TESSALY_REGISTRATION: "user" means the current user; "machine"
  // or no value means the machine. Throws HResultError with E_INVALIDARG for anything else.
  Registration();

  bool is_per_user() const noexcept { return is_per_user_; }

  // Writes the content of script `id`, with the replacements of class `of` if given. Other keys and
  // values stay unchanged.
  void Register(UINT id, const ClassEntry* of = nullptr) const;
  // Removes the content of script `id`, last line first. A key with other content stays.
  void Unregister(UINT id, const ClassEntry* of = nullptr) const;

  // The same for each of `classes`, with the script IDR_CLASS_REGISTRATION.
  void RegisterClasses(std::span<const ClassEntry> classes) const;
  void UnregisterClasses(std::span<const ClassEntry> classes) const;

  // Whether a key exists below HKEY_CLASSES_ROOT or, per user, below the user's own classes.
  bool HasKey(const std::wstring& path) const;

 private:
  std::wstring FullPath(const std::wstring& path) const;

  const SystemLocale locale_;
  bool is_per_user_ = false;
  HKEY root_ = HKEY_CLASSES_ROOT;
};

}  // namespace marlinda
