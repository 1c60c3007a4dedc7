// A worker thread, for tasks, playback and scrubbing.
#pragma once

#include <windows.h>

#include <functional>
#include <utility>

#include "core/com_call.h"
#include "core/handle.h"

namespace marlinda {

// Waits until the object is signalled. Returns false after `milliseconds`. Meanwhile serves calls
// to objects in this thread's apartment, because the thread that signals may wait for such a call.
bool AwaitServingCalls(HANDLE object, DWORD milliseconds) noexcept;

// Owns at most one thread, which runs the body passed to Start. The body must own everything that
// it uses. Capture shared state, not the COM object. Otherwise the worker itself could release the
// object last and so destroy it.
class WorkerThread {
 public:
  static constexpr ULONGLONG kWithoutLimit = ~ULONGLONG{0};

  WorkerThread() noexcept = default;
  // Waits for the body to end, except on the worker itself, where the wait would never end.
  ~WorkerThread();

  // Runs the body on a new thread. Returns E_FAIL while an earlier thread runs, and the system's
  // HRESULT if no thread could be created. An exception ends the thread and is not reported.
  template <class Body>
  HRESULT Start(Body body) noexcept {
    // ComCall catches the exception if memory for the std::function runs out.
    return ComCall([&] { return StartJob(std::move(body)); });
  }

  // True from Start until the body has returned.
  bool IsRunning() const noexcept;

  // Polls every `milliseconds` until the body has ended, or for about `at_most` milliseconds.
  // Returns false if the body still runs. Returns true at once on the worker itself.
  bool PollUntilEnded(DWORD milliseconds, ULONGLONG at_most = kWithoutLimit) const noexcept;

  // Abandons the thread without waiting. Use it for a body that waits in foreign code and may never
  // return. The module stays loaded until the body returns.
  void Detach() noexcept;

  // Waits at most `milliseconds` for the body to end. Meanwhile serves incoming COM calls.
  void AwaitServingCalls(DWORD milliseconds) const noexcept;

 private:
  HRESULT StartJob(std::function<void()> body);
  bool OnWorker() const noexcept;

  KernelHandle thread_;
  DWORD id_ = 0;
};

}  // namespace marlinda
