// A reader-writer lock of the system, for std::shared_lock and std::unique_lock: the standard's own
// is much slower under mingw. Not recursive.
#pragma once

#include <windows.h>

namespace marlinda {

class SrwLock {
 public:
  SrwLock() noexcept = default;
  SrwLock(const SrwLock&) = delete;
  SrwLock& operator=(const SrwLock&) = delete;

  void lock() noexcept { AcquireSRWLockExclusive(&lock_); }
  void unlock() noexcept { ReleaseSRWLockExclusive(&lock_); }
  void lock_shared() noexcept { AcquireSRWLockShared(&lock_); }
  void unlock_shared() noexcept { ReleaseSRWLockShared(&lock_); }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};

}  // namespace marlinda
