#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

#include "tests/support/our_converter.h"
#include "tests/task/test_filters.h"

namespace marlinda::testing {
namespace {

using Habit = TestConverter::Habit;

template <class Condition>
void Await(const Condition& condition) {
  while (!condition()) Sleep(5);
}

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
  // Until the export has ended.
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
  float Progress() const { return Ask(task_, &ICoreTask::GetProgress); }
  std::vector<float> Read(std::size_t count, HRESULT result = S_OK) const {
    const Floats block(count, 9.0F, 5);
    EXPECT_EQ(reader_->ReadAudio(1'000'000, block), result);
    return block.ToVector();
  }
  static void ExpectCounting(const std::vector<float>& samples, std::size_t count) {
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

TEST_F(AudioConnector, PassesEqualFormatsBitForBitAndReleasesTheFiltersAtTheEnd) {
  const OurConverter converter;                     // not needed
  for (const __int64 frames : {1'000'003, 1000}) {  // the same object serves again
    const auto from = MakeObject<TestImport>(frames);
    from->block_samples = 4999;
    const auto to = MakeObject<TestExport>();
    Join(from.Get(), to.Get());
    EXPECT_GT(from->references(), 1);
    EXPECT_EQ(Progress(), 0.25F);
    Run(to.Get());
    ExpectCounting(to->result->samples, static_cast<std::size_t>(2 * frames));
    EXPECT_EQ(std::ranges::count(to->result->results, S_OK), std::ssize(to->result->results));
    EXPECT_EQ(from->references(), 1);
    EXPECT_EQ(to->references(), 1);
    EXPECT_EQ(Progress(), 1.0F);
  }
}

// Filters are apartment-threaded: they may count their references without interlocking.
TEST_F(AudioConnector, CallsAndCountsTheFiltersOnTheThreadOfTheHostAlone) {
  constexpr __int64 kFrames = 5'000'000;  // more than the queue holds
  const auto from = MakeObject<TestImport>(kFrames);
  const auto reader = MakeObject<TestReader>(kFrames);
  const auto to_reader = MakeObject<TestExport>();
  to_->result->may_read = false;  // until the import waits for room
  Join(from.Get(), to_.Get());
  Start(to_.Get());
  Await([&] { return !IsReady(); });
  to_->result->may_read = true;
  Await([&] { return !IsRunning(); });
  Join(reader.Get(), to_reader.Get());
  Run(to_reader.Get());
  // Later reads may use the reader, until the next set-up.
  EXPECT_EQ(reader->references(), 2);
  Join(ramp_.Get(), to_.Get());
  EXPECT_EQ(reader->references(), 1);
  ExpectCounting(to_->result->samples, 2 * kFrames);
  ExpectCounting(to_reader->result->samples, 2 * kFrames);
  // One read of more than the queue may hold gets it all.
  const auto again = MakeObject<TestImport>(kFrames);
  Join(again.Get(), to_.Get());
  again->Start();
  ExpectCounting(Read(2 * kFrames), 2 * kFrames);
  task_->Cancel();
  EXPECT_EQ(from->foreign_calls() + reader->foreign_calls(), 0);
  EXPECT_EQ(to_->foreign_calls() + to_reader->foreign_calls(), 0);
}

TEST_F(AudioConnector, ReadsAReaderInOrderInBlocksOf65535FramesWhateverThePosition) {
  CallLog log;
  const auto source = RampSource::Make('A', 2, &log);
  Join(source.Get(), to_.Get());
  log.clear();
  EXPECT_EQ(Read(100)[99], RampSource::Sample('A', 49, 1));
  EXPECT_EQ(Read(3)[2], RampSource::Sample('A', 51, 0));
  EXPECT_EQ(log, (CallLog{"A.ReadAudio(0, 131070)"}));
  source->read_result = E_FAIL;  // a block that fails is silent
  const std::vector<float> large = Read(200'000);
  EXPECT_EQ(log.back(), "A.ReadAudio(65535, 131070)");
  EXPECT_EQ(large[131070 - 104], RampSource::Sample('A', 65534, 1));
  EXPECT_EQ(std::ranges::count(large, 0.0F), 200'000 - (131070 - 103));
  Join(source.Get(), to_.Get(), 22050);
  EXPECT_EQ(SampleCount(), 2048);
  Join(RampSource::Make('B', 0).Get(), to_.Get());
  // More than the queue may hold.
  const std::vector<float> huge = Read(0x800000 + 2, S_FALSE);
  EXPECT_EQ(std::ranges::count(huge, 0.0F), std::ssize(huge));
}

TEST_F(AudioConnector, KeepsItsSetUpWhenANewOneFails) {
  Join(ramp_.Get(), to_.Get());
  IUnknown* const exporter = to_->face();
  EXPECT_EQ(connector_->SetupReaderToExport(exporter, exporter, 1, 1), E_NOINTERFACE);
  EXPECT_EQ(connector_->SetupReaderToExport(ramp_.Get(), ramp_.Get(), 1, 1), E_NOINTERFACE);
  EXPECT_EQ(connector_->SetupReaderToExport(reader_.Get(), exporter, 1, 1), E_INVALIDARG);
  EXPECT_EQ(connector_->SetupImportToExport(ramp_.Get(), exporter, 1, 1), E_NOINTERFACE);
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(reader_->GetFormat(&rate, &channels), S_OK);
  EXPECT_TRUE(rate == 44100 && channels == 2);
  EXPECT_EQ(Read(2)[1], RampSource::Sample('A', 0, 1));
}

TEST_F(AudioConnector, IsAPlainQueueBeforeASetUpAndAfterAPollHasFoundTheExportEnded) {
  EXPECT_EQ(task_->Start(), E_NOTIMPL);
  EXPECT_EQ(task_->Cancel(), E_NOTIMPL);
  EXPECT_TRUE(IsReady());
  EXPECT_EQ(writer_->WriteAudio(Floats(std::vector<float>{1, 2, 3})), S_OK);
  EXPECT_EQ(Read(2), (std::vector<float>{1, 2}));
  EXPECT_EQ(writer_->WriteAudio(Floats(0x800000 - 2)), S_OK);
  EXPECT_TRUE(IsReady());
  EXPECT_EQ(writer_->WriteAudio(Floats(1)), S_OK);
  EXPECT_FALSE(IsReady());
  const auto from = MakeObject<TestImport>(1);
  Join(from.Get(), to_.Get());
  EXPECT_FALSE(IsRunning());  // not started
  EXPECT_EQ(from->references(), 1);
  EXPECT_EQ(writer_->WriteAudio(Floats(4, 0.5F)), S_OK);
  EXPECT_EQ(Read(4), std::vector<float>(4, 0.5F));
}

// Ten waits for the first read alone: with ten for each the test would take a quarter of an hour.
TEST_F(AudioConnector, AnImportThatStopsEndsTheDataInSilenceAfterTenWaitsOfHalfASecond) {
  const auto from = MakeObject<TestImport>(1000);
  from->channels = 1;
  from->promised = 200 * 65536;
  const ULONGLONG start = GetTickCount64();
  Join(from.Get(), to_.Get(), 44100, 1);
  Run(to_.Get());
  EXPECT_GE(GetTickCount64() - start, 4900U);
  std::vector<float>& samples = to_->result->samples;
  ASSERT_EQ(samples.size(), 200U * 65536);
  EXPECT_EQ(std::ranges::count(samples, 0.0F), std::ssize(samples) - 999);
  samples.resize(1000);
  ExpectCounting(samples, 1000);
  EXPECT_EQ(to_->result->results, std::vector<HRESULT>(200, S_FALSE));
}

// An import that waits for room, and an export that waits for data.
TEST_F(AudioConnector, CancelAndANewSetUpEndBothTasks) {
  for (const bool stalled : {false, true}) {
    for (const bool cancels : {false, true}) {
      const auto from = MakeObject<TestImport>(1LL << 40);
      if (stalled) from->frames = 10;
      from->block_samples = 10'000;  // not ready is then above the limit
      const auto to = MakeObject<TestExport>();
      to->result->may_read = stalled;
      Join(from.Get(), to.Get());
      Start(to.Get());
      Await([&] { return stalled || !IsReady(); });
      if (cancels) {
        EXPECT_EQ(task_->Cancel(), E_NOTIMPL);
        EXPECT_FALSE(IsRunning());
        EXPECT_EQ(task_->Cancel(), E_NOTIMPL);
      } else {
        Join(ramp_.Get(), to_.Get());
        EXPECT_EQ(Read(2)[1], RampSource::Sample('A', 0, 1));
      }
      EXPECT_FALSE(from->IsRunning() || to->IsRunning());
      EXPECT_EQ(from->references(), 1);
      EXPECT_EQ(to->references(), 1);
    }
  }
}

TEST_F(AudioConnector, PassesSamplesUnchangedWithoutAConverterAndEndsTheDataOfABadOne) {
  const struct {
    Habit habit;
    LONG rate;
    SHORT channels;
    std::vector<LONG> set_up;
  } rows[] = {{Habit::kRefusesSetUp, 22050, 1, {44100, 22050, 2, 1, 151}},
              {Habit::kRefusesSetUp, 44100, 2, {}},
              // A target that is not positive.
              {Habit::kRefusesSetUp, 0, 2, {}},
              {Habit::kRefusesSetUp, 44100, -1, {}},
              {Habit::kFails, 22050, 2, {44100, 22050, 2, 2, 151}},
              {Habit::kGivesEmpty, 22050, 2, {44100, 22050, 2, 2, 151}},
              {Habit::kGivesNull, 22050, 2, {44100, 22050, 2, 2, 151}},
              {Habit::kGivesShorts, 22050, 2, {44100, 22050, 2, 2, 151}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const auto converter = MakeObject<TestConverter>(row.habit);
    const InstalledConverter installed(converter->factory());
    Join(ramp_.Get(), to_.Get(), row.rate, row.channels);
    const bool passes = row.habit == Habit::kRefusesSetUp;
    const std::vector<float> samples = Read(4, passes ? S_OK : S_FALSE);
    EXPECT_EQ(samples[3], passes ? RampSource::Sample('A', 1, 1) : 0.0F);
    EXPECT_EQ(converter->set_up, row.set_up);
  }
  Join(ramp_.Get(), to_.Get(), 22050, 1);  // none is installed
  EXPECT_EQ(Read(4)[3], RampSource::Sample('A', 1, 1));
}

TEST_F(AudioConnector, ReadsASourcesFormatAgainWhenItWasNotKnownAtSetUp) {
  const auto converter = MakeObject<TestConverter>(Habit::kPasses);
  const InstalledConverter installed(converter->factory());
  const auto from = MakeObject<TestImport>(0);
  from->rate = from->channels = 0;
  Join(from.Get(), to_.Get(), 48000);
  EXPECT_EQ(SampleCount(), 0);
  EXPECT_TRUE(converter->set_up.empty());
  from->rate = 24000;
  from->channels = 2;
  from->promised = from->frames = 600;
  Start(to_.Get());
  EXPECT_EQ(converter->set_up, (std::vector<LONG>{24000, 48000, 2, 2, 151}));
  EXPECT_EQ(SampleCount(), 1200);
  task_->Cancel();
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
  // No read waited in vain.
  EXPECT_EQ(to_->result->results, std::vector<HRESULT>(2, S_OK));
  double error = 0;
  double last = 0;  // level of the frames that the converter holds back until the end
  for (std::size_t i = 500; i < 96000; ++i) {
    const double difference = samples[2 * i] - sine(static_cast<double>(i), 48000);
    ASSERT_EQ(samples[2 * i], samples[2 * i + 1]);
    if (i < 95500) error += difference * difference;
    if (i >= 95900) last = std::max(last, std::abs(static_cast<double>(samples[2 * i])));
  }
  EXPECT_LT(10 * std::log10(2 * error / 95000), -120.0);
  EXPECT_GT(last, 0.9);
}

TEST_F(AudioConnector, ConvertsOneTakeOfAPoolAsIfNothingCameAfterIt) {
  const OurConverter converter;
  const auto source = RampSource::Make('A', 1);  // reports 4096 frames and delivers more
  Join(source.Get(), to_.Get(), 88200, 1);
  const std::vector<float> samples = Read(8192 + 2000);
  const float last = RampSource::Sample('A', 4095, 0);
  EXPECT_NEAR(samples[8190], last, last * 0.2);
  EXPECT_EQ(std::count(samples.begin() + 8192 + 1000, samples.end(), 0.0F), 1000);
}

}  // namespace
}  // namespace marlinda::testing
