// "marlinda install-filters": lists the engine's own import filters in the registry, where the
// filter manager looks, or takes them off that list.
#pragma once

#include "host/console.h"

namespace marlinda {

// Listing leaves alone a filter that is listed already, under whatever name, and any filter that
// the module cannot create. Removing takes off every entry of a built-in filter and needs no
// module.
void RunInstallFilters(bool remove, bool json, const Console& console);

}  // namespace marlinda
