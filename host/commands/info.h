// "marlinda info": what a filter tells about a file without decoding it.
#pragma once

#include <string>

#include "host/console.h"

namespace marlinda {

void RunInfo(const std::string& file, bool json, const Console& console);

}  // namespace marlinda
