// FilterTask: the methods common to import and export filters (task, merit, filter strings).
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <atomic>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "core/com_object.h"
#include "core/text.h"
#include "core/worker_thread.h"

namespace marlinda {

struct OutText {
  BSTR* out;
  std::string_view text;
};

// Stores all texts or none.
inline HRESULT HandOut(std::initializer_list<OutText> texts) noexcept {
  for (const OutText& each : texts) {
    if (each.out == nullptr) return E_POINTER;
  }
  for (const OutText& each : texts) *each.out = nullptr;
  const HRESULT hr = ComCall([&] {
    for (const OutText& each : texts) *each.out = ToBstr(each.text);
  });
  if (FAILED(hr)) {
    for (const OutText& each : texts) SysFreeString(std::exchange(*each.out, nullptr));
  }
  return hr;
}

inline HRESULT HandOut(VARIANT_BOOL* out, bool value) noexcept {
  return SetOut(out, value ? VARIANT_TRUE : VARIANT_FALSE);
}

// The state that a filter shares with its worker. The filter and the worker own it together.
struct TaskJob {
  std::atomic<bool> cancelled{false};
  // The expected length in frames. A compressed or damaged source may deliver more or fewer frames.
  std::atomic<__int64> total{0};
  std::atomic<__int64> position{0};
};

// `Class` defines the constants kMerit, kNameText (the resource of the task's name), kFilterTexts
// (the resources that make up the filter string) and kPatterns. `Job` derives from TaskJob.
template <class Class, class Job, class... Interfaces>
class FilterTask : public Object<Class, Interfaces...> {
 public:
  // ICoreTask. Cancel returns when the worker has ended. A task cancelled between Initialize and
  // Start ends early once started.
  STDMETHODIMP Cancel() override {
    if (job_ != nullptr) job_->cancelled = true;
    worker_.PollUntilEnded(kPollMilliseconds);
    return S_OK;
  }
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override {
    return HandOut(pbRunning, worker_.IsRunning());
  }
  // Returns E_FAIL unless the length is positive. If the task ends early, progress stays below 1.0.
  STDMETHODIMP GetProgress(float* pfProgress) override {
    if (pfProgress == nullptr) return E_POINTER;
    const __int64 total = job_ != nullptr ? job_->total.load() : 0;
    if (total <= 0) return E_FAIL;
    const __int64 position = std::min<__int64>(job_->position, total);
    return SetOut(pfProgress,
                  static_cast<float>(static_cast<double>(position) / static_cast<double>(total)));
  }
  STDMETHODIMP GetName(BSTR* pbstrName) override {
    return ComCall([&] {
      return HandOut({{pbstrName, Format(TheModule().LoadText(Class::kNameText), file_name_)}});
    });
  }

  // IImportFilter or IExportFilter
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override {
    return ComCall([&] {
      std::string text;
      for (const UINT id : Class::kFilterTexts) text += TheModule().LoadText(id);
      return HandOut({{pbstrFilterString, text}, {pbstrExtensions, Class::kPatterns}});
    });
  }
  STDMETHODIMP GetMerit(SHORT* pnMerit) override { return SetOut(pnMerit, Class::kMerit); }

 protected:
  // Cancels a running job and waits for it.
  ~FilterTask() { FilterTask::Cancel(); }

  static constexpr DWORD kPollMilliseconds = 100;

  std::shared_ptr<Job> job_;
  WorkerThread worker_;
  std::string file_name_;
};

}  // namespace marlinda
