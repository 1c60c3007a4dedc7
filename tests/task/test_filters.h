// An import filter and a reader that make up their audio, an export filter that keeps what it
// reads, and format converters that behave well or badly, as other makers might write them.
#pragma once

#include <converter.h>
#include <marlinda.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "core/com_ptr.h"
#include "tests/support/com_client.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {

// An object that belongs to the thread that makes it, and counts its references without
// interlocking.
template <class... Interfaces>
class ApartmentObject : public TestObject<Interfaces...> {
 public:
  STDMETHODIMP_(ULONG) AddRef() override {
    NoteCall();
    ++references_;
    return TestObject<Interfaces...>::AddRef();
  }
  STDMETHODIMP_(ULONG) Release() override {
    NoteCall();
    --references_;
    return TestObject<Interfaces...>::Release();
  }
  int references() const { return references_; }
  // Calls on other threads.
  int foreign_calls() const { return foreign_calls_; }

 protected:
  void NoteCall() {
    if (GetCurrentThreadId() != thread_) ++foreign_calls_;
  }

 private:
  const DWORD thread_ = GetCurrentThreadId();
  int references_ = 1;
  std::atomic<int> foreign_calls_ = 0;
};

// A thread that shares nothing with its filter but this.
class TestTask {
 public:
  ~TestTask() { cancelled_ = true; }

  // The body is destroyed, with the references that it holds, before the task has ended.
  HRESULT Start(std::function<void(const std::atomic<bool>& cancelled)> body) {
    state_->running = true;
    std::thread([state = state_, body = std::move(body)]() mutable {
      body(state->cancelled);
      body = nullptr;
      state->running = false;
    }).detach();
    return S_OK;
  }
  HRESULT Cancel() {
    cancelled_ = true;
    while (state_->running) Sleep(10);
    return S_OK;
  }
  bool IsRunning() const { return state_->running; }

 private:
  struct State {
    std::atomic<bool> running = false;
    std::atomic<bool> cancelled = false;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::atomic<bool>& cancelled_ = state_->cancelled;
};

// Sample `index` of the interleaved stream.
using Signal = std::function<float(std::uint64_t index)>;

inline float Counting(std::uint64_t index) { return static_cast<float>(index % 0x1000000); }

class TestImport final : public ApartmentObject<IImportFilter, IExFormatInfo, ICoreTask> {
 public:
  LONG rate = 44100;
  SHORT channels = 2;
  __int64 promised = 0;
  __int64 frames = 0;  // to deliver
  std::size_t block_samples = 16384;
  Signal signal = Counting;

  static ComPtr<TestImport> Make(__int64 frames) {
    const auto filter = MakeObject<TestImport>();
    filter->promised = filter->frames = frames;
    return filter;
  }
  bool IsRunning() const { return task_.IsRunning(); }

  STDMETHODIMP QueryCanLoad(BSTR) override { return S_OK; }
  STDMETHODIMP Initialize(BSTR, IAudioWriter* writer) override {
    writer_ = writer;
    return S_OK;
  }
  STDMETHODIMP GetFilterStrings(BSTR*, BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSourceSampleCount(__int64* count) override {
    NoteCall();
    *count = promised;
    return S_OK;
  }
  STDMETHODIMP GetMerit(SHORT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetFormat(LONG* samples_per_sec, SHORT* channel_count) override {
    NoteCall();
    *samples_per_sec = rate;
    *channel_count = channels;
    return S_OK;
  }
  STDMETHODIMP GetBitsPerSample(SHORT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetAvgBytesPerSec(LONG*) override { return E_NOTIMPL; }

  STDMETHODIMP Start() override {
    return task_.Start([writer = std::move(writer_),
                        samples = static_cast<std::uint64_t>(frames) *
                                  static_cast<std::uint64_t>(channels),
                        size = block_samples, make = signal](const std::atomic<bool>& cancelled) {
      for (std::uint64_t at = 0; at < samples && !cancelled;) {
        const Floats block(static_cast<std::size_t>(std::min<std::uint64_t>(size, samples - at)));
        for (float& sample : block.values()) sample = make(at++);
        writer->WriteAudio(block);
      }
      writer->CloseDevice();
    });
  }
  STDMETHODIMP Cancel() override {
    NoteCall();
    return task_.Cancel();
  }
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* running) override {
    NoteCall();
    *running = IsRunning() ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  }
  STDMETHODIMP GetProgress(float*) override { return E_FAIL; }
  STDMETHODIMP GetName(BSTR*) override { return E_NOTIMPL; }

 private:
  ComPtr<IAudioWriter> writer_;
  TestTask task_;
};

// A source of the counting signal. Reads are for the export's thread.
class TestReader final : public ApartmentObject<IAudioReader> {
 public:
  explicit TestReader(__int64 frames) : frames_(frames) {}

  STDMETHODIMP ReadAudio(__int64 position, SAFEARRAY* array) override {
    auto* const samples = static_cast<float*>(array->pvData);
    const auto first = static_cast<std::uint64_t>(position) * 2;
    for (ULONG i = 0; i < array->rgsabound[0].cElements; ++i) samples[i] = Counting(first + i);
    return S_OK;
  }
  STDMETHODIMP GetFormat(LONG* samples_per_sec, SHORT* channels) override {
    NoteCall();
    *samples_per_sec = 44100;
    *channels = 2;
    return S_OK;
  }
  STDMETHODIMP GetSampleCount(__int64* count) override {
    NoteCall();
    *count = frames_;
    return S_OK;
  }
  STDMETHODIMP OpenDevice() override { return S_OK; }
  STDMETHODIMP CloseDevice() override { return S_OK; }

 private:
  const __int64 frames_;
};

class TestExport final : public ApartmentObject<IExportFilter, ICoreTask> {
 public:
  struct Result {
    std::vector<float> samples;
    std::vector<HRESULT> results;
    std::atomic<int> blocks = 0;
    std::atomic<bool> may_read = true;
  };
  const std::shared_ptr<Result> result = std::make_shared<Result>();
  bool keep = true;

  static ComPtr<TestExport> Make() { return MakeObject<TestExport>(); }
  bool IsRunning() const { return task_.IsRunning(); }

  STDMETHODIMP QuerySupportsExtension(BSTR, VARIANT_BOOL*) override { return E_NOTIMPL; }
  STDMETHODIMP Initialize(BSTR, IAudioReader* reader) override {
    reader_ = reader;
    return S_OK;
  }
  STDMETHODIMP SetBitsPerSample(SHORT) override { return S_OK; }
  STDMETHODIMP GetFilterStrings(BSTR*, BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP QueryHasSettingsDlg(BSTR, VARIANT_BOOL*) override { return E_NOTIMPL; }
  STDMETHODIMP ShowSettingsDlg(BSTR, ULONG) override { return E_NOTIMPL; }
  STDMETHODIMP GetMerit(SHORT*) override { return E_NOTIMPL; }
  STDMETHODIMP QueryIsLossy(VARIANT_BOOL*) override { return E_NOTIMPL; }

  // Asks for format and length on its own thread.
  STDMETHODIMP Start() override {
    return task_.Start([reader = std::move(reader_), result = result,
                        keep = keep](const std::atomic<bool>& cancelled) {
      LONG rate = 0;
      SHORT channels = 0;
      __int64 total = 0;
      reader->GetFormat(&rate, &channels);
      reader->GetSampleCount(&total);
      while (!result->may_read && !cancelled) Sleep(5);
      for (__int64 at = 0; at < total && !cancelled; at += 65536) {
        const auto frames = static_cast<std::size_t>(std::min<__int64>(65536, total - at));
        const Floats block(frames * static_cast<std::size_t>(channels), 9.0F);
        const HRESULT hr = reader->ReadAudio(at, block);
        if (keep) {
          result->results.push_back(hr);
          const auto values = block.values();
          result->samples.insert(result->samples.end(), values.begin(), values.end());
        }
        ++result->blocks;
      }
    });
  }
  STDMETHODIMP Cancel() override {
    NoteCall();
    return task_.Cancel();
  }
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* running) override {
    NoteCall();
    *running = IsRunning() ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  }
  STDMETHODIMP GetProgress(float* progress) override {
    NoteCall();
    *progress = 0.25F;
    return S_OK;
  }
  STDMETHODIMP GetName(BSTR*) override { return E_NOTIMPL; }

 private:
  ComPtr<IAudioReader> reader_;
  TestTask task_;
};

// Passes samples on, or breaks the contract of a converter.
class TestConverter final : public TestObject<IFormatConverter> {
 public:
  enum class Habit { kPasses, kRefusesSetUp, kFails, kGivesEmpty, kGivesNull, kGivesShorts };

  explicit TestConverter(Habit habit) : habit_(habit) {}
  std::vector<LONG> set_up;  // its arguments

  STDMETHODIMP SetUp(LONG source_rate, LONG target_rate, SHORT source_channels,
                     SHORT target_channels, LONG mode) override {
    set_up = {source_rate, target_rate, source_channels, target_channels, mode};
    return habit_ == Habit::kRefusesSetUp ? E_FAIL : S_OK;
  }
  STDMETHODIMP Convert(SAFEARRAY* block) override {
    const auto* values = static_cast<const float*>(block->pvData);
    held_.assign(values, values + block->rgsabound[0].cElements);
    return habit_ == Habit::kFails ? E_FAIL : S_OK;
  }
  STDMETHODIMP GetOutput(SAFEARRAY** output) override {
    *output = nullptr;
    if (habit_ == Habit::kGivesNull) return S_OK;
    const std::size_t count = habit_ == Habit::kGivesEmpty ? 0 : held_.size();
    *output = SafeArrayCreateVector(habit_ == Habit::kGivesShorts ? VT_I2 : VT_R4, 0,
                                    static_cast<ULONG>(count));
    if (habit_ == Habit::kPasses) {
      std::copy(held_.begin(), held_.end(), static_cast<float*>((*output)->pvData));
    }
    return S_OK;
  }

 private:
  const Habit habit_;
  std::vector<float> held_;
};

// Returns the same object for each creation.
class SingleFactory final : public TestObject<IClassFactory> {
 public:
  explicit SingleFactory(IUnknown* object) : object_(object) {}
  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return object_->QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

 private:
  ComPtr<IUnknown> object_;
};

}  // namespace marlinda::testing
