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

#include "tests/support/com_client.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {

// An object that belongs to the thread that makes it, and counts its references without
// interlocking.
template <class Base>
class InApartment : public Base {
 public:
  using Base::Base;
  STDMETHODIMP_(ULONG) AddRef() override { return Count(1), Base::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return Count(-1), Base::Release(); }
  int references() const { return references_; }
  // Calls on other threads.
  int foreign_calls() const { return foreign_calls_; }

 protected:
  // Returns the result of a call.
  HRESULT Noted(HRESULT hr = S_OK) { return Count(0), hr; }

 private:
  void Count(int added) {
    references_ += added;
    if (GetCurrentThreadId() != thread_) ++foreign_calls_;
  }

  const DWORD thread_ = GetCurrentThreadId();
  int references_ = 1;
  std::atomic<int> foreign_calls_ = 0;
};

// A filter whose thread shares nothing with it but this.
template <class Filter, class... Interfaces>
class TestFilter : public InApartment<TestObject<Filter, Interfaces..., ICoreTask>> {
 public:
  ~TestFilter() { state_->cancelled = true; }
  IUnknown* face() { return static_cast<Filter*>(this); }
  bool IsRunning() const { return state_->running; }

  STDMETHODIMP Start() override {
    state_->running = true;
    // The body is destroyed, with the references that it holds, before the task has ended.
    std::thread([state = state_, body = Body()]() mutable {
      body(state->cancelled);
      body = nullptr;
      state->running = false;
    }).detach();
    return S_OK;
  }
  STDMETHODIMP Cancel() override {
    state_->cancelled = true;
    while (IsRunning()) Sleep(5);
    return this->Noted();
  }
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* running) override {
    return *running = IsRunning() ? VARIANT_TRUE : VARIANT_FALSE, this->Noted();
  }
  STDMETHODIMP GetProgress(float* progress) override { return *progress = 0.25F, this->Noted(); }
  STDMETHODIMP GetName(BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP GetFilterStrings(BSTR*, BSTR*) override { return E_NOTIMPL; }
  STDMETHODIMP GetMerit(SHORT*) override { return E_NOTIMPL; }

 protected:
  virtual std::function<void(const std::atomic<bool>& cancelled)> Body() = 0;

 private:
  struct State {
    std::atomic<bool> running = false;
    std::atomic<bool> cancelled = false;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

// Sample `index` of an interleaved stream.
inline float Counting(std::uint64_t index) { return static_cast<float>(index % 0x1000000); }

class TestImport final : public TestFilter<IImportFilter, IExFormatInfo> {
 public:
  explicit TestImport(__int64 count) : promised(count), frames(count) {}

  LONG rate = 44100;
  SHORT channels = 2;
  __int64 promised;
  __int64 frames;  // to deliver
  std::size_t block_samples = 16384;
  std::function<float(std::uint64_t)> signal = Counting;

  STDMETHODIMP QueryCanLoad(BSTR) override { return S_OK; }
  STDMETHODIMP Initialize(BSTR, IAudioWriter* writer) override { return writer_ = writer, S_OK; }
  STDMETHODIMP GetSourceSampleCount(__int64* count) override { return *count = promised, Noted(); }
  STDMETHODIMP GetFormat(LONG* samples_per_sec, SHORT* channel_count) override {
    return *samples_per_sec = rate, *channel_count = channels, Noted();
  }
  STDMETHODIMP GetBitsPerSample(SHORT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetAvgBytesPerSec(LONG*) override { return E_NOTIMPL; }

 private:
  std::function<void(const std::atomic<bool>&)> Body() override {
    return [writer = std::move(writer_), size = block_samples, make = signal,
            left = static_cast<std::uint64_t>(frames * channels)](const auto& cancelled) mutable {
      for (std::uint64_t at = 0; left > 0 && !cancelled;) {
        const Floats block(static_cast<std::size_t>(std::min<std::uint64_t>(size, left)));
        left -= block.values().size();
        for (float& sample : block.values()) sample = make(at++);
        writer->WriteAudio(block);
      }
      writer->CloseDevice();
    };
  }

  ComPtr<IAudioWriter> writer_;
};

// A source of the counting signal.
class TestReader final : public InApartment<RampSource> {
 public:
  explicit TestReader(__int64 count) : InApartment('A', SHORT{2}, nullptr, 44100) {
    frames = count;
  }

 private:
  // Reads are for the export's thread.
  void Note(const std::string& call) override {
    if (!call.starts_with("ReadAudio")) Noted();
  }
  float At(__int64 frame, int channel) const override {
    return Counting(static_cast<std::uint64_t>(2 * frame + channel));
  }
};

class TestExport final : public TestFilter<IExportFilter> {
 public:
  struct Result {
    std::vector<float> samples;
    std::vector<HRESULT> results;
    std::atomic<bool> may_read = true;
  };
  const std::shared_ptr<Result> result = std::make_shared<Result>();

  STDMETHODIMP QuerySupportsExtension(BSTR, VARIANT_BOOL*) override { return E_NOTIMPL; }
  STDMETHODIMP Initialize(BSTR, IAudioReader* reader) override { return reader_ = reader, S_OK; }
  STDMETHODIMP SetBitsPerSample(SHORT) override { return S_OK; }
  STDMETHODIMP QueryHasSettingsDlg(BSTR, VARIANT_BOOL*) override { return E_NOTIMPL; }
  STDMETHODIMP ShowSettingsDlg(BSTR, ULONG) override { return E_NOTIMPL; }
  STDMETHODIMP QueryIsLossy(VARIANT_BOOL*) override { return E_NOTIMPL; }

 private:
  // Asks for format and length on its own thread.
  std::function<void(const std::atomic<bool>&)> Body() override {
    return [reader = std::move(reader_), result = result](const auto& cancelled) {
      LONG rate = 0;
      SHORT channels = 0;
      __int64 total = 0;
      reader->GetFormat(&rate, &channels);
      reader->GetSampleCount(&total);
      while (!result->may_read && !cancelled) Sleep(5);
      for (__int64 at = 0; at < total && !cancelled; at += 65536) {
        const Floats block(static_cast<std::size_t>(std::min<__int64>(65536, total - at)) *
                               static_cast<std::size_t>(channels),
                           9.0F);
        result->results.push_back(reader->ReadAudio(at, block));
        const auto values = block.values();
        result->samples.insert(result->samples.end(), values.begin(), values.end());
      }
    };
  }

  ComPtr<IAudioReader> reader_;
};

// Passes samples on, or breaks the contract of a converter. Is its own factory.
class TestConverter final : public TestObject<IFormatConverter, IClassFactory> {
 public:
  enum class Habit { kPasses, kRefusesSetUp, kFails, kGivesEmpty, kGivesNull, kGivesShorts };

  explicit TestConverter(Habit habit) : habit_(habit) {}
  std::vector<LONG> set_up;  // its arguments

  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
  IUnknown* factory() { return static_cast<IClassFactory*>(this); }
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
    *output = SafeArrayCreateVector(habit_ == Habit::kGivesShorts ? VT_I2 : VT_R4, 0,
                                    habit_ == Habit::kGivesEmpty ? 0 : held_.size());
    if (habit_ == Habit::kPasses) std::ranges::copy(held_, static_cast<float*>((*output)->pvData));
    return S_OK;
  }

 private:
  const Habit habit_;
  std::vector<float> held_;
};

}  // namespace marlinda::testing
