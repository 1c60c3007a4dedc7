// Registers and unregisters the module: application identifier, classes, type library.
#pragma once

#include <windows.h>

namespace marlinda {

// Both act for the whole machine, or for the current user alone when the environment variable
// TESSALY_REGISTRATION says "user"; "machine" and no value mean the machine, anything else is
// E_INVALIDARG. They stop at the first step that fails, take back what they changed until then and
// return that step's HRESULT. The thread's locale is the same afterwards as before.
HRESULT RegisterModule() noexcept;
// Succeeds also where nothing is registered.
HRESULT UnregisterModule() noexcept;

}  // namespace marlinda
