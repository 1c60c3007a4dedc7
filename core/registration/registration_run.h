// Carries registration scripts out on the registry.
#pragma once

#include "core/registration/registration_script.h"
#include "core/registration/registry_transaction.h"

namespace marlinda {

// Where HKEY_CLASSES_ROOT of a script lies: the machine's classes or the current user's.
enum class RegistrationScope { kMachine, kUser };

// What the environment variable TESSALY_REGISTRATION asks for: "user", or "machine" and nothing for
// the machine. Throws HResultError with E_INVALIDARG for anything else.
RegistrationScope ChosenScope();

// Registry texts are processed under the system's locale, whatever the calling thread's is.
class SystemLocale {
 public:
  SystemLocale() noexcept { SetThreadLocale(LOCALE_SYSTEM_DEFAULT); }
  SystemLocale(const SystemLocale&) = delete;
  SystemLocale& operator=(const SystemLocale&) = delete;
  ~SystemLocale() { SetThreadLocale(previous_); }

 private:
  const LCID previous_ = GetThreadLocale();
};

// Script `id` of the module's resources. Throws HResultError.
RegistryScript LoadRegistryScript(UINT id, const RegistryReplacements& replacements);

RegistryPlace ClassesRoot(RegistrationScope scope);

// Both throw HResultError at the first change that the registry refuses.
void RunRegistration(const RegistryScript& script, RegistrationScope scope,
                     RegistryTransaction& registry);
// Takes back what RunRegistration wrote, last entry first, as far as it is there.
void RunUnregistration(const RegistryScript& script, RegistrationScope scope,
                       RegistryTransaction& registry);

}  // namespace marlinda
