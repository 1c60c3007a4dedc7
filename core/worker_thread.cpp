#include "core/worker_thread.h"

#include <memory>
#include <utility>

#include "core/com_call.h"
#include "core/module.h"

namespace marlinda {
namespace {

struct Job {
  std::function<void()> body;
  // The module stays loaded while its code runs on the thread.
  ModuleObjectCount module_count;
};

DWORD WINAPI Run(void* parameter) noexcept {
  const std::unique_ptr<Job> job(static_cast<Job*>(parameter));
  ComCall([&] {
    job->body();
    return S_OK;
  });
  return 0;
}

}  // namespace

WorkerThread::~WorkerThread() {
  if (thread_ && !OnWorker()) WaitForSingleObject(thread_.get(), INFINITE);
}

HRESULT WorkerThread::Start(std::function<void()> body) noexcept {
  if (IsRunning()) return E_FAIL;
  return ComCall([&] {
    auto job = std::make_unique<Job>();
    job->body = std::move(body);
    thread_.Reset(CreateThread(nullptr, 0, Run, job.get(), CREATE_SUSPENDED, &id_));
    if (!thread_) return LastErrorResult();
    job.release();
    ResumeThread(thread_.get());
    return S_OK;
  });
}

bool WorkerThread::IsRunning() const noexcept {
  DWORD code = 0;
  return thread_ && GetExitCodeThread(thread_.get(), &code) != FALSE && code == STILL_ACTIVE;
}

void WorkerThread::PollUntilEnded(DWORD milliseconds) const noexcept {
  if (OnWorker()) return;
  while (IsRunning()) Sleep(milliseconds);
}

bool WorkerThread::OnWorker() const noexcept { return id_ == GetCurrentThreadId(); }

}  // namespace marlinda
