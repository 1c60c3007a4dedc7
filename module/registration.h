// Registers and unregisters the module: application identifier, classes, type library.
#pragma once

#include <windows.h>

namespace marlinda {

// Both functions act for the whole machine, or for the current user if the environment variable
// TESSALY_REGISTRATION is "user". They fail with E_INVALIDARG if its value is neither "user" nor
// "machine". They stop at the first step that fails and return its HRESULT. Earlier changes stay.
// The thread's locale is restored.
HRESULT RegisterModule() noexcept;
// Succeeds even if nothing is registered.
HRESULT UnregisterModule() noexcept;

}  // namespace marlinda
