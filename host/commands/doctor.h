// "marlinda doctor": what the engine on this machine is made of, and what is wrong with it.
#pragma once

#include "host/console.h"

namespace marlinda {

// Prints all that was found, then throws with the status of the gravest problem if there is one:
// registration before the temporary folder before sound devices.
void RunDoctor(bool json, const Console& console);

}  // namespace marlinda
