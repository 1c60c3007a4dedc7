// Carries registration scripts out on the registry.
#pragma once

#include "core/registration_script.h"
#include "core/registry_transaction.h"

namespace marlinda {

// Where HKEY_CLASSES_ROOT of a script lies: the machine's classes or the current user's.
enum class RegistrationScope { kMachine, kUser };

RegistryPlace ClassesRoot(RegistrationScope scope);

// Both throw HResultError at the first change that the registry refuses.
void RunRegistration(const RegistryScript& script, RegistrationScope scope,
                     RegistryTransaction& registry);
// Takes back what RunRegistration wrote, last entry first, as far as it is there.
void RunUnregistration(const RegistryScript& script, RegistrationScope scope,
                       RegistryTransaction& registry);

}  // namespace marlinda
