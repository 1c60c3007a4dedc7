// Counts the calls of other threads that are inside an object, so that its destruction can see them
// out.
#pragma once

#include <windows.h>

#include <atomic>

namespace marlinda {

// A thread that waits in a method without a reference of its own would otherwise wake up in freed
// memory when the last reference is released meanwhile.
class CallsInside {
 public:
  class Scope {
   public:
    explicit Scope(CallsInside& calls) noexcept : calls_(calls) { ++calls_.count_; }
    ~Scope() { --calls_.count_; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    CallsInside& calls_;
  };

  // For a destructor, after it has made every wait end. `wake` is signalled until all have left.
  void SeeOut(HANDLE wake) const noexcept {
    while (count_ > 0) {
      SetEvent(wake);
      Sleep(1);
    }
  }

 private:
  std::atomic<int> count_{0};
};

}  // namespace marlinda
