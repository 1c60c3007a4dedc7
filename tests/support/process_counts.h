// Counts what this process holds, to see that a piece of work leaves nothing behind.
#pragma once

#include <cstddef>

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();
// Memory that is committed and of this process alone.
std::size_t CountPrivateBytes();

}  // namespace marlinda::testing
