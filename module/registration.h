// Registers and unregisters the module: application identifier, classes, type library.
#pragma once

#include <windows.h>

namespace marlinda {

// Both act for the whole machine, or for the current user when the environment variable
// TESSALY_REGISTRATION is "user"; any other value than "machine" fails with E_INVALIDARG. They stop
// at the first step that fails and return its HRESULT; earlier changes stay. Neither changes the
// thread's locale.
HRESULT RegisterModule() noexcept;
// Succeeds also if nothing is registered.
HRESULT UnregisterModule() noexcept;

}  // namespace marlinda
