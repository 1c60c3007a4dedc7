// Counts what this process holds, to see that a piece of work leaves nothing behind.
#pragma once

#include <cstddef>

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();
// Blocks in use in the process heap, from which the module's C library allocates.
std::size_t CountHeapBlocks();

// Waits until there are no more than at construction and some: threads that have done their work
// may still be ending, and libraries make a few handles when they are used first.
class LeakWatch {
 public:
  void AwaitAtMost(unsigned more_threads, unsigned more_handles) const;

 private:
  const unsigned threads_ = CountThreads();
  const unsigned handles_ = CountHandles();
};

}  // namespace marlinda::testing
