// Counts what this process holds, to see that a piece of work leaves nothing behind.
#pragma once

#include <cstddef>

namespace marlinda::testing {

unsigned CountHandles();
unsigned CountThreads();
// Blocks in use in the process heap, from which the module's C library allocates.
std::size_t CountHeapBlocks();

// Waits until `count` gives no more than `most`: threads that have done their work may still end.
void AwaitAtMost(unsigned (*count)(), unsigned most, const char* what);

// The same against the counts at construction, with some that libraries make at first use.
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
