// Counts the resources of this process, to find leaks.
#pragma once

#include <cstddef>

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();
// Blocks in use in the process heap, from which the module's C library allocates.
std::size_t CountHeapBlocks();

// Waits until `count` returns at most `most`: finished threads may still be ending.
void AwaitAtMost(unsigned (*count)(), unsigned most, const char* what);

// Compares with the counts at construction, plus an allowance for libraries' first use.
class LeakWatch {
 public:
  void AwaitAtMost(unsigned more_threads, unsigned more_handles) const {
    testing::AwaitAtMost(CountThreads, threads_ + more_threads, "threads");
    testing::AwaitAtMost(CountHandles, handles_ + more_handles, "handles");
  }

 private:
  const unsigned threads_ = CountThreads();
  const unsigned handles_ = CountHandles();
};

}  // namespace marlinda::testing
