// An audio writer that records its calls and samples.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/test_object.h"

namespace marlinda::testing {

// Until the task has ended, all members but the atomics belong to the writing thread.
class RecordingWriter final : public TestObject<IAudioWriter> {
 public:
  // The methods in call order; consecutive calls of one method count once.
  std::vector<std::string> calls;
  std::vector<DWORD> threads;
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  std::vector<std::size_t> block_sizes;
  std::vector<float> samples;
  bool keep_samples = true;  // applies to block_sizes too
  std::atomic<std::size_t> blocks = 0;
  std::atomic<bool> closed = false;

  // on_write runs in WriteAudio after recording. `result` is the result of every method.
  std::function<void(SAFEARRAY*)> on_write;
  HRESULT result = S_OK;

  STDMETHODIMP WriteAudio(SAFEARRAY* array) override {
    Note("WriteAudio");
    if (keep_samples && array != nullptr && array->cbElements == sizeof(float)) {
      const auto* values = static_cast<const float*>(array->pvData);
      block_sizes.push_back(array->rgsabound[0].cElements);
      samples.insert(samples.end(), values, values + block_sizes.back());
    }
    ++blocks;
    if (on_write) on_write(array);
    return result;
  }
  STDMETHODIMP OpenDevice() override { return Note("OpenDevice"); }
  STDMETHODIMP CloseDevice() override { return Note("CloseDevice"), closed = true, result; }
  STDMETHODIMP SetFormat(LONG rate, SHORT count) override {
    return samples_per_sec = rate, channels = count, Note("SetFormat");
  }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override { return *pbReady = 1, Note("QueryIsReady"); }

 private:
  HRESULT Note(const char* call) {
    if (calls.empty() || calls.back() != call) calls.emplace_back(call);
    const DWORD thread = GetCurrentThreadId();
    if (threads.empty() || threads.back() != thread) threads.push_back(thread);
    return result;
  }
};

}  // namespace marlinda::testing
