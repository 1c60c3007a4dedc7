// Tests the connector between generated sources, which are import filters or readers, and an export
// that records all samples that it reads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <thread>

#include "tests/support/our_converter.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {
namespace {

using Samples = std::vector<float>;
using Body = std::function<void(const std::atomic<bool>& cancelled)>;

template <class Condition>
void Await(const Condition& condition) {
  while (!condition()) Sleep(5);
}

// An object that belongs to the thread that creates it. Its reference count is not interlocked.
template <class Base>
class InApartment : public Base {
 public:
  using Base::Base;
  STDMETHODIMP_(ULONG) AddRef() override { return Count(1), Base::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return Count(-1), Base::Release(); }

  int references = 1;
  std::atomic<int> foreign_calls = 0;  // calls on other threads

 protected:
  HRESULT Noted() { return Count(0), S_OK; }

 private:
  void Count(int added) {
    references += added;
    if (GetCurrentThreadId() != thread_) ++foreign_calls;
  }

  const DWORD thread_ = GetCurrentThreadId();
};

// A filter. Its thread has no access to the filter's object, only to `state_`.
template <class Filter, class... Interfaces>
class TestFilter : public InApartment<TestObject<Filter, Interfaces..., ICoreTask>> {
 public:
  ~TestFilter() { state_->cancelled = true; }
  IUnknown* face() { return static_cast<Filter*>(this); }
  bool IsRunning() const { return state_->running; }

  STDMETHODIMP Start() override {
    state_->running = true;
    // The body and its references are destroyed before the task has ended.
    std::thread([state = state_, body = MakeBody()]() mutable {
      body(state->cancelled);
      body = nullptr;
      state->running = false;
    }).detach();
    return S_OK;
  }
  STDMETHODIMP Cancel() override {
    state_->cancelled = true;
    Await([this] { return !IsRunning(); });
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
  virtual Body MakeBody() = 0;

 private:
  struct State {
    std::atomic<bool> running = false;
    std::atomic<bool> cancelled = false;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

// Returns sample `index` of an interleaved stream.
float Counting(std::uint64_t index) { return static_cast<float>(index % 0x1000000); }

class TestImport final : public TestFilter<IImportFilter, IExFormatInfo> {
 public:
  explicit TestImport(__int64 count) : promised(count), frames(count) {}

  LONG rate = 44100;
  SHORT channels = 2;
  __int64 promised;
  __int64 frames;  // the number to deliver
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
  Body MakeBody() override {
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

// A source whose samples count up. Only the export's thread reads it.
class TestReader final : public InApartment<RampSource> {
 public:
  explicit TestReader(__int64 count) : InApartment('A', SHORT{2}, nullptr, 44100) {
    frames = count;
  }

 private:
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
    Samples samples;
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
  // Queries format and length on its own thread.
  Body MakeBody() override {
    return [reader = std::move(reader_), result = result](const auto& cancelled) {
      LONG rate = 0;
      SHORT channels = 0;
      __int64 total = 0;
      reader->GetFormat(&rate, &channels);
      reader->GetSampleCount(&total);
      Await([&] { return result->may_read || cancelled; });
      for (__int64 at = 0; at < total && !cancelled; at += 65536) {
        const Floats block(
            static_cast<std::size_t>(std::min<__int64>(65536, total - at) * channels), 9.0F);
        result->results.push_back(reader->ReadAudio(at, block));
        const auto values = block.values();
        result->samples.insert(result->samples.end(), values.begin(), values.end());
      }
    };
  }

  ComPtr<IAudioReader> reader_;
};

class AudioConnector : public ::testing::Test {
 protected:
  void Join(TestImport* from, TestExport* to, LONG rate = 44100, SHORT channels = 2) const {
    ASSERT_EQ(connector_->SetupImportToExport(from->face(), to->face(), rate, channels), S_OK);
    from->Initialize(nullptr, writer_.Get());
  }
  void Join(IAudioReader* from, TestExport* to, LONG rate = 44100, SHORT channels = 2) const {
    ASSERT_EQ(connector_->SetupReaderToExport(from, to->face(), rate, channels), S_OK);
  }
  void Start(TestExport* to) const {
    to->Initialize(nullptr, reader_.Get());
    EXPECT_EQ(task_->Start(), E_NOTIMPL);
  }
  // Runs until the export has ended.
  void Run(TestExport* to) const {
    Start(to);
    Await([&] { return !IsRunning(); });
  }
  template <class Value, class Interface>
  static Value Ask(const ComPtr<Interface>& object,
                   HRESULT (STDMETHODCALLTYPE Interface::*question)(Value*)) {
    Value value = -1;
    EXPECT_EQ((object.Get()->*question)(&value), S_OK);
    return value;
  }
  bool IsRunning() const { return Ask(task_, &ICoreTask::QueryIsTaskRunning) != VARIANT_FALSE; }
  bool IsReady() const { return Ask(writer_, &IAudioWriter::QueryIsReady) == 1; }
  __int64 SampleCount() const { return Ask(reader_, &IAudioReader::GetSampleCount); }
  Samples Read(std::size_t count, HRESULT result = S_OK) const {
    const Floats block(count, 9.0F, 5);
    EXPECT_EQ(reader_->ReadAudio(1'000'000, block), result);
    return block.ToVector();
  }
  static void ExpectCounting(const Samples& samples, std::size_t count) {
    ASSERT_EQ(samples.size(), count);
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(samples[i], Counting(i)) << i;
  }

  const ComPtr<IAudioConnector> connector_ = Create<IAudioConnector>(CLSID_CAudioConnector);
  const ComPtr<ICoreTask> task_ = As<ICoreTask>(connector_);
  const ComPtr<IAudioReader> reader_ = As<IAudioReader>(connector_);
  const ComPtr<IAudioWriter> writer_ = As<IAudioWriter>(connector_);
  const ComPtr<RampSource> ramp_ = RampSource::Make('A');
  const ComPtr<TestExport> to_ = MakeObject<TestExport>();
};

// Filters are apartment-threaded and may count their references without interlocking.
TEST_F(AudioConnector, PassesSamplesUnchangedAndCallsFiltersOnlyOnTheHostsThread) {
  const OurConverter converter;           // installed but unused, because both formats are equal
  constexpr __int64 kFrames = 5'000'000;  // more than the queue holds
  const auto from = MakeObject<TestImport>(kFrames);
  const auto reader = MakeObject<TestReader>(kFrames);
  const auto to_reader = MakeObject<TestExport>();
  from->block_samples = 4999;
  to_->result->may_read = false;  // becomes true once the import waits for room
  Join(from.Get(), to_.Get());
  EXPECT_EQ(Ask(task_, &ICoreTask::GetProgress), 0.25F);
  Start(to_.Get());
  Await([&] { return !IsReady(); });
  to_->result->may_read = true;
  Await([&] { return !IsRunning(); });
  ExpectCounting(to_->result->samples, 2 * kFrames);
  EXPECT_EQ(std::ranges::count(to_->result->results, S_OK), std::ssize(to_->result->results));
  EXPECT_EQ(from->references, 1);
  EXPECT_EQ(to_->references, 1);
  EXPECT_EQ(Ask(task_, &ICoreTask::GetProgress), 1.0F);
  Join(reader.Get(), to_reader.Get());
  Run(to_reader.Get());
  // The connector keeps the reader for later reads, until the next set-up.
  EXPECT_EQ(reader->references, 2);
  Join(ramp_.Get(), to_.Get());
  EXPECT_EQ(reader->references, 1);
  ExpectCounting(to_reader->result->samples, 2 * kFrames);
  // A single read that is larger than the queue gets all samples.
  const auto again = MakeObject<TestImport>(kFrames);
  Join(again.Get(), to_.Get());
  again->Start();
  ExpectCounting(Read(2 * kFrames), 2 * kFrames);
  task_->Cancel();
  EXPECT_EQ(from->foreign_calls + reader->foreign_calls, 0);
  EXPECT_EQ(to_->foreign_calls + to_reader->foreign_calls, 0);
}

TEST_F(AudioConnector, ReadsItsSourceSequentiallyAndIgnoresThePosition) {
  CallLog log;
  const auto source = RampSource::Make('A', 2, &log);
  Join(source.Get(), to_.Get());
  log.clear();
  EXPECT_EQ(Read(100)[99], RampSource::Sample('A', 49, 1));
  EXPECT_EQ(Read(3)[2], RampSource::Sample('A', 51, 0));
  EXPECT_EQ(log, (CallLog{"A.ReadAudio(0, 131070)"}));
  source->read_result = E_FAIL;  // a block is silent if its read fails
  const Samples large = Read(200'000);
  EXPECT_EQ(log.back(), "A.ReadAudio(65535, 131070)");
  EXPECT_EQ(std::ranges::count(large, 0.0F), 200'000 - (131070 - 103));
  Join(source.Get(), to_.Get(), 22050);
  EXPECT_EQ(SampleCount(), 2048);
}

TEST_F(AudioConnector, QueuesSamplesBeforeSetUpAndAfterTheExportHasEnded) {
  EXPECT_EQ(writer_->WriteAudio(Floats(0x800000 - 1)), S_OK);
  EXPECT_TRUE(IsReady());
  EXPECT_EQ(writer_->WriteAudio(Floats(1)), S_OK);
  EXPECT_FALSE(IsReady());
  const auto from = MakeObject<TestImport>(1);
  Join(from.Get(), to_.Get());
  EXPECT_FALSE(IsRunning());  // not started
  EXPECT_EQ(from->references, 1);
  EXPECT_EQ(writer_->WriteAudio(Floats(4, 0.5F)), S_OK);
  EXPECT_EQ(Read(4), Samples(4, 0.5F));
}

// Only the first read waits for all ten timeouts. If all reads did, the test would take a quarter
// of an hour.
TEST_F(AudioConnector, AfterAnImportStallsForFiveSecondsReadsReturnSilence) {
  const auto from = MakeObject<TestImport>(1000);
  from->channels = 1;
  from->promised = 200 * 65536;
  const ULONGLONG start = GetTickCount64();
  Join(from.Get(), to_.Get(), 44100, 1);
  Run(to_.Get());
  EXPECT_GE(GetTickCount64() - start, 4900U);
  Samples& samples = to_->result->samples;
  ASSERT_EQ(samples.size(), 200U * 65536);
  EXPECT_EQ(std::ranges::count(samples, 0.0F), std::ssize(samples) - 999);
  samples.resize(1000);
  ExpectCounting(samples, 1000);
  EXPECT_EQ(to_->result->results, std::vector<HRESULT>(200, S_FALSE));
}

// In the first two rounds, the import waits for room. In the others, the export waits for data.
TEST_F(AudioConnector, CancelAndANewSetUpEndTheImportAndTheExport) {
  for (const bool stalled : {false, true}) {
    for (const bool cancels : {false, true}) {
      const auto from = MakeObject<TestImport>(1LL << 40);
      if (stalled) from->frames = 10;
      from->block_samples = 10'000;  // does not divide the queue limit; imports wait only above it
      const auto to = MakeObject<TestExport>();
      to->result->may_read = stalled;
      Join(from.Get(), to.Get());
      Start(to.Get());
      Await([&] { return stalled || !IsReady(); });
      if (cancels) {
        EXPECT_EQ(task_->Cancel(), E_NOTIMPL);
        EXPECT_FALSE(IsRunning());
      } else {
        Join(ramp_.Get(), to_.Get());
        EXPECT_EQ(Read(2)[1], RampSource::Sample('A', 0, 1));
      }
      EXPECT_FALSE(from->IsRunning() || to->IsRunning());
      EXPECT_EQ(from->references, 1);
      EXPECT_EQ(to->references, 1);
    }
  }
}

TEST_F(AudioConnector,
       PassesSamplesUnchangedWithoutAConverterAndQueriesAnUnknownFormatAgainAtStart) {
  const auto passes = [&](LONG rate, SHORT channels) {
    Join(ramp_.Get(), to_.Get(), rate, channels);
    return Read(4)[3] == RampSource::Sample('A', 1, 1);
  };
  EXPECT_TRUE(passes(22050, 1)) << "none is installed";
  const OurConverter converter;
  EXPECT_FALSE(passes(22050, 1));
  EXPECT_TRUE(passes(44100, -1)) << "no target";
  EXPECT_TRUE(passes(100, 2)) << "it refuses the ratio";
  const auto from = MakeObject<TestImport>(0);
  from->rate = 0;
  Join(from.Get(), to_.Get(), 48000);
  EXPECT_EQ(SampleCount(), 0);
  from->rate = 24000;
  from->promised = from->frames = 600;
  Run(to_.Get());
  EXPECT_EQ(to_->result->samples.size(), 2400U);
}

TEST_F(AudioConnector, ConvertsToTheLastFrameWithoutATimeout) {
  const OurConverter converter;
  const auto sine = [](double frame, int rate) {
    return std::sin(2 * std::numbers::pi * 997 * frame / rate);
  };
  const auto from = MakeObject<TestImport>(88200);
  from->channels = 1;
  from->block_samples = 1000;
  from->signal = [&](std::uint64_t i) {
    return static_cast<float>(sine(static_cast<double>(i), 44100));
  };
  Join(from.Get(), to_.Get(), 48000, 2);
  Run(to_.Get());
  const auto& samples = to_->result->samples;
  ASSERT_EQ(samples.size(), 192000U);
  // A read that times out would return S_FALSE.
  EXPECT_EQ(to_->result->results, std::vector<HRESULT>(2, S_OK));
  float last = 0;  // level of the frames that the converter holds back until the end
  for (std::size_t i = 500; i < 96000; ++i) {
    ASSERT_EQ(samples[2 * i], samples[2 * i + 1]);
    const double exact = sine(static_cast<double>(i), 48000);
    ASSERT_NEAR(samples[2 * i], exact, i < 95500 ? 1e-5 : 2);
    if (i >= 95900) last = std::max(last, std::abs(samples[2 * i]));
  }
  EXPECT_GT(last, 0.9F);
  // Samples past the reported end, such as those of a pool's next take, must not be heard. This
  // source reports 4096 frames and delivers more.
  Join(RampSource::Make('A', 1).Get(), to_.Get(), 88200, 1);
  const Samples take = Read(8192 + 2000);
  const float end = RampSource::Sample('A', 4095, 0);
  EXPECT_NEAR(take[8190], end, end * 0.2);
  EXPECT_EQ(std::count(take.begin() + 8192 + 1000, take.end(), 0.0F), 1000);
}

}  // namespace
}  // namespace marlinda::testing
