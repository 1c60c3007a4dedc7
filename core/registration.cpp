#include "core/registration.h"

namespace marlinda {

HRESULT RegisterModule() noexcept { return E_NOTIMPL; }
HRESULT UnregisterModule() noexcept { return E_NOTIMPL; }

}  // namespace marlinda
