// A worker thread, for tasks, playback and scrubbing.
#pragma once

#include <windows.h>

#include <functional>
#include <utility>

#include "core/com_call.h"
#include "core/handle.h"

namespace marlinda {

// Waits until the object is signalled. Returns false after `milliseconds`. Meanwhile serves calls
// to objects in this thread's apartment, because the signalling thread may depend on one.
bool AwaitServingCalls(HANDLE object, DWORD milliseconds) noexcept;

// Owns at most one thread. The body must keep alive what it uses: capture shared state, not the COM
// object, because the last release of the object may happen on the worker itself.
class WorkerThread {
 public:
  static constexpr ULONGLONG kWithoutLimit = ~ULONGLONG{0};

  WorkerThread() noexcept = default;
  // Waits for the body to end, except on the worker itself, which would wait forever.
  ~WorkerThread();

  // Starts the body. Returns the system's HRESULT if no thread could be created, and E_FAIL while
  // one is running. An ended thread is replaced. An exception of the body ends the thread without a
  // report.
  template <class Body>
  HRESULT Start(Body body) noexcept {
    // Inside ComCall, because creating the std::function can run out of memory.
    return ComCall([&] { return StartJob(std::move(body)); });
  }

  // True from Start until the body has returned.
  bool IsRunning() const noexcept;

  // Polls every `milliseconds` until the body has ended, or for about `at_most` milliseconds.
  // Returns false if the body still runs. Returns true at once on the worker itself.
  bool PollUntilEnded(DWORD milliseconds, ULONGLONG at_most = kWithoutLimit) const noexcept;

  // Abandons the thread, for a body that waits in foreign code and may never return. The module
  // stays loaded until the body returns.
  void Detach() noexcept;

  // Waits until the body has ended, or for `milliseconds`, and serves calls meanwhile.
  void AwaitServingCalls(DWORD milliseconds) const noexcept;

 private:
  HRESULT StartJob(std::function<void()> body);
  bool OnWorker() const noexcept;

  KernelHandle thread_;
  DWORD id_ = 0;
};

}  // namespace marlinda
