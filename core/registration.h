// Registers and unregisters the module: application identifier, classes, type library.
#pragma once

#include <windows.h>

namespace marlinda {

HRESULT RegisterModule() noexcept;
HRESULT UnregisterModule() noexcept;

}  // namespace marlinda
