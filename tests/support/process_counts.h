// Counts what this process holds, to see that a piece of work leaves nothing behind.
#pragma once

#include <cstddef>

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();
// Waits until `count` gives no more than `most`. Threads that have done their work may still be
// ending.
void AwaitAtMost(unsigned (*count)(), unsigned most, const char* what);
// Blocks in use in the process heap, from which the module's C library allocates.
std::size_t CountHeapBlocks();
// Memory that is committed and of this process alone.
std::size_t CountPrivateBytes();

}  // namespace marlinda::testing
