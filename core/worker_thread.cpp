#include "core/worker_thread.h"

#include <memory>
#include <utility>

#include "core/com_call.h"
#include "core/module.h"

namespace marlinda {
namespace {

struct Job {
  std::function<void()> body;
  // A reference to the module that contains this code.
  HMODULE module = nullptr;
  // Counts the running job as an object, so that the host does not unload the module.
  ModuleObjectCount module_count;
};

DWORD WINAPI Run(void* parameter) noexcept {
  HMODULE module = nullptr;
  {
    const std::unique_ptr<Job> job(static_cast<Job*>(parameter));
    module = job->module;
    ComCall(job->body);
  }
  // The job no longer counts as an object, so the host may release the module from here on. The
  // thread's own reference to the module keeps this code loaded until the thread has left it.
  FreeLibraryAndExitThread(module, 0);
}

}  // namespace

bool AwaitServingCalls(HANDLE object, DWORD milliseconds) noexcept {
  DWORD index = 0;
  const HRESULT hr = CoWaitForMultipleHandles(0, milliseconds, 1, &object, &index);
  if (SUCCEEDED(hr) || hr == RPC_S_CALLPENDING) return SUCCEEDED(hr);
  // The wait fails on a thread without an apartment. Such a thread has no calls to serve.
  return WaitForSingleObject(object, milliseconds) == WAIT_OBJECT_0;
}

WorkerThread::~WorkerThread() {
  if (thread_ && !OnWorker()) WaitForSingleObject(thread_.get(), INFINITE);
}

HRESULT WorkerThread::StartJob(std::function<void()> body) {
  if (IsRunning()) return E_FAIL;
  auto job = std::make_unique<Job>();
  job->body = std::move(body);
  if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                         reinterpret_cast<const wchar_t*>(&Run), &job->module) == FALSE) {
    return LastErrorResult();
  }
  // Creates the thread suspended, so that `id_` is set before the thread reads it.
  thread_.Reset(CreateThread(nullptr, 0, Run, job.get(), CREATE_SUSPENDED, &id_));
  if (!thread_) {
    const HRESULT hr = LastErrorResult();
    FreeLibrary(job->module);
    return hr;
  }
  static_cast<void>(job.release());  // The thread now owns the job.
  ResumeThread(thread_.get());
  return S_OK;
}

bool WorkerThread::IsRunning() const noexcept {
  DWORD code = 0;
  return thread_ && GetExitCodeThread(thread_.get(), &code) != FALSE && code == STILL_ACTIVE;
}

bool WorkerThread::PollUntilEnded(DWORD milliseconds, ULONGLONG at_most) const noexcept {
  if (OnWorker()) return true;
  const ULONGLONG start = GetTickCount64();
  while (IsRunning()) {
    if (GetTickCount64() - start >= at_most) return false;
    Sleep(milliseconds);
  }
  return true;
}

void WorkerThread::Detach() noexcept {
  thread_ = KernelHandle();
  id_ = 0;
}

void WorkerThread::AwaitServingCalls(DWORD milliseconds) const noexcept {
  if (thread_ && !OnWorker()) marlinda::AwaitServingCalls(thread_.get(), milliseconds);
}

bool WorkerThread::OnWorker() const noexcept { return id_ == GetCurrentThreadId(); }

}  // namespace marlinda
