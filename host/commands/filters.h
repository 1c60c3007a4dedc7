// "marlinda filters": which import filters the engine uses, and which it could use.
#pragma once

#include "host/console.h"

namespace marlinda {

void RunFilters(bool json, const Console& console);

}  // namespace marlinda
