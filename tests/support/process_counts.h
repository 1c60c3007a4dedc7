// Counts the resources of this process, to find leaks.
#pragma once

#include <cstddef>

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();
// Blocks in use in the process heap, from which the module's C library allocates.
std::size_t CountHeapBlocks();

// Finds leaks of threads and handles since its construction.
class LeakWatch {
 public:
  // Waits until the counts exceed those at construction by at most these numbers. Finished threads
  // may still be ending, and libraries keep some handles from their first use.
  void AwaitAtMost(unsigned more_threads, unsigned more_handles) const;

 private:
  const unsigned threads_ = CountThreads();
  const unsigned handles_ = CountHandles();
};

}  // namespace marlinda::testing
