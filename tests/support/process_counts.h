// Counts what this process holds, to see that a piece of work leaves nothing behind.
#pragma once

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();

}  // namespace marlinda::testing
