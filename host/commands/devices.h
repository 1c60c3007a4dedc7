// "marlinda devices": the sound devices to play and record with.
#pragma once

#include "host/console.h"

namespace marlinda {

void RunDevices(bool json, const Console& console);

}  // namespace marlinda
