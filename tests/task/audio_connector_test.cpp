#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

#include "tests/support/com_client.h"
#include "tests/support/our_converter.h"
#include "tests/support/ramp_source.h"
#include "tests/task/test_filters.h"

namespace marlinda::testing {
namespace {

using Habit = TestConverter::Habit;

// A connector and its interfaces.
struct Connector {
  ComPtr<IAudioConnector> connector = Create<IAudioConnector>(CLSID_CAudioConnector);
  ComPtr<ICoreTask> task = As<ICoreTask>(connector);
  ComPtr<IAudioReader> reader = As<IAudioReader>(connector);
  ComPtr<IAudioWriter> writer = As<IAudioWriter>(connector);

  // Sets up, initialises both filters and starts.
  void Run(const ComPtr<TestImport>& from, const ComPtr<TestExport>& to, LONG rate,
           SHORT channels) const {
    ASSERT_EQ(connector->SetupImportToExport(Face(from), Face(to), rate, channels), S_OK);
    from->Initialize(nullptr, writer.Get());
    Start(to);
  }
  void Start(const ComPtr<TestExport>& to) const {
    to->Initialize(nullptr, reader.Get());
    EXPECT_EQ(task->Start(), E_NOTIMPL);
  }

  bool IsRunning() const {
    VARIANT_BOOL running = VARIANT_FALSE;
    EXPECT_EQ(task->QueryIsTaskRunning(&running), S_OK);
    return running != VARIANT_FALSE;
  }
  bool IsReady() const {
    LONG ready = -1;
    EXPECT_EQ(writer->QueryIsReady(&ready), S_OK);
    return ready == 1;
  }
  __int64 SampleCount() const {
    __int64 count = -1;
    EXPECT_EQ(reader->GetSampleCount(&count), S_OK);
    return count;
  }

  // Several of their interfaces derive from IUnknown.
  static IUnknown* Face(const ComPtr<TestImport>& filter) {
    return static_cast<IImportFilter*>(filter.Get());
  }
  static IUnknown* Face(const ComPtr<TestExport>& filter) {
    return static_cast<IExportFilter*>(filter.Get());
  }
};

template <class Condition>
void Await(const Condition& condition) {
  while (!condition()) Sleep(5);
}

void ExpectCounting(const std::vector<float>& samples, std::size_t count) {
  ASSERT_EQ(samples.size(), count);
  for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(samples[i], Counting(i)) << i;
}

TEST(AudioConnector, PassesEqualFormatsBitForBitAndReleasesTheFiltersAtTheEnd) {
  const OurConverter converter;  // not needed
  const Connector joined;
  for (const __int64 frames : {1'000'003, 1000}) {  // the same object serves again
    const auto from = TestImport::Make(frames);
    from->block_samples = 4999;
    const auto to = TestExport::Make();
    joined.Run(from, to, 44100, 2);
    EXPECT_GT(from->references(), 1);
    float progress = 0;
    EXPECT_EQ(joined.task->GetProgress(&progress), S_OK);
    EXPECT_EQ(progress, 0.25F);
    Await([&] { return !joined.IsRunning(); });
    ExpectCounting(to->result->samples, static_cast<std::size_t>(2 * frames));
    EXPECT_TRUE(std::ranges::all_of(to->result->results, [](HRESULT hr) { return hr == S_OK; }));
    EXPECT_EQ(from->references(), 1);
    EXPECT_EQ(to->references(), 1);
    EXPECT_EQ(joined.task->GetProgress(&progress), S_OK);
    EXPECT_EQ(progress, 1.0F);
    EXPECT_FALSE(joined.IsRunning());
  }
}

// Filters are apartment-threaded: they may count their references without interlocking.
TEST(AudioConnector, CallsAndCountsTheFiltersOnTheThreadOfTheHostAlone) {
  constexpr __int64 kFrames = 5'000'000;  // more than the queue holds
  const auto to_import = TestExport::Make();
  const auto to_reader = TestExport::Make();
  const auto from = TestImport::Make(kFrames);
  const auto reader = MakeObject<TestReader>(kFrames);
  {
    const Connector joined;
    to_import->result->may_read = false;  // until the import waits for room
    joined.Run(from, to_import, 44100, 2);
    Await([&] { return !joined.IsReady(); });
    to_import->result->may_read = true;
    Await([&] { return !joined.IsRunning(); });

    ASSERT_EQ(
        joined.connector->SetupReaderToExport(reader.Get(), Connector::Face(to_reader), 44100, 2),
        S_OK);
    joined.Start(to_reader);
    Await([&] { return !joined.IsRunning(); });
    // Later reads may use the reader, until the next set-up.
    EXPECT_EQ(reader->references(), 2);
  }
  ExpectCounting(to_import->result->samples, 2 * kFrames);
  ExpectCounting(to_reader->result->samples, 2 * kFrames);
  EXPECT_EQ(from->foreign_calls(), 0);
  EXPECT_EQ(reader->foreign_calls(), 0);
  EXPECT_EQ(to_import->foreign_calls(), 0);
  EXPECT_EQ(to_reader->foreign_calls(), 0);
  EXPECT_EQ(from->references(), 1);
  EXPECT_EQ(reader->references(), 1);
  EXPECT_EQ(to_reader->references(), 1);
}

TEST(AudioConnector, ReadsAReaderInOrderInBlocksOf65535FramesWhateverThePosition) {
  CallLog log;
  const Connector joined;
  const auto source = RampSource::Make('A', 2, &log);
  const auto to = TestExport::Make();
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), 44100, 2),
            S_OK);
  log.clear();
  const Floats block(100, 0, 5);
  EXPECT_EQ(joined.reader->ReadAudio(1'000'000, block), S_OK);
  EXPECT_EQ(block[99], RampSource::Sample('A', 49, 1));
  const Floats odd(3);
  EXPECT_EQ(joined.reader->ReadAudio(0, odd), S_OK);
  EXPECT_EQ(odd[2], RampSource::Sample('A', 51, 0));
  EXPECT_EQ(log, (CallLog{"A.ReadAudio(0, 131070)"}));
  source->read_result = E_FAIL;  // a block that fails is silent
  const Floats large(200'000, 9.0F);
  EXPECT_EQ(joined.reader->ReadAudio(0, large), S_OK);
  EXPECT_EQ(log.back(), "A.ReadAudio(65535, 131070)");
  EXPECT_EQ(large[131070 - 104], RampSource::Sample('A', 65534, 1));
  EXPECT_EQ(large[131070 - 103], 0.0F);
  EXPECT_EQ(large[199'999], 0.0F);

  EXPECT_EQ(joined.SampleCount(), 4096);
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), 22050, 2),
            S_OK);
  EXPECT_EQ(joined.SampleCount(), 2048);

  const auto shapeless = RampSource::Make('B', 0);
  ASSERT_EQ(joined.connector->SetupReaderToExport(shapeless.Get(), Connector::Face(to), 44100, 2),
            S_OK);
  const Floats huge(0x800000 + 2, 9.0F);  // more than the queue may hold
  EXPECT_EQ(joined.reader->ReadAudio(0, huge), S_FALSE);
  EXPECT_EQ(huge[0], 0.0F);
  EXPECT_EQ(huge[0x800000 + 1], 0.0F);
}

TEST(AudioConnector, KeepsItsSetUpWhenANewOneFails) {
  const Connector joined;
  const auto source = RampSource::Make('A');
  const auto to = TestExport::Make();
  IUnknown* const exporter = Connector::Face(to);
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), exporter, 44100, 2), S_OK);
  EXPECT_EQ(joined.connector->SetupReaderToExport(exporter, exporter, 1, 1), E_NOINTERFACE);
  EXPECT_EQ(joined.connector->SetupReaderToExport(source.Get(), source.Get(), 1, 1), E_NOINTERFACE);
  EXPECT_EQ(joined.connector->SetupReaderToExport(joined.reader.Get(), exporter, 1, 1),
            E_INVALIDARG);
  EXPECT_EQ(joined.connector->SetupImportToExport(source.Get(), exporter, 1, 1), E_NOINTERFACE);
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(joined.reader->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  const Floats block(2);
  EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
  EXPECT_EQ(block[1], RampSource::Sample('A', 0, 1));
  Bstr name;
  EXPECT_EQ(joined.task->GetName(name.Receive()), S_OK);
  EXPECT_NE(static_cast<BSTR>(name), nullptr);
  EXPECT_EQ(name.str(), L"");
}

TEST(AudioConnector, IsAPlainQueueBeforeASetUpAndReadyUntilItIsFull) {
  const Connector queue;
  EXPECT_EQ(queue.task->Start(), E_NOTIMPL);
  EXPECT_EQ(queue.task->Cancel(), E_NOTIMPL);
  EXPECT_TRUE(queue.IsReady());
  const Floats block(std::vector<float>{1, 2, 3});
  EXPECT_EQ(queue.writer->WriteAudio(block), S_OK);
  const Floats got(2);
  EXPECT_EQ(queue.reader->ReadAudio(0, got), S_OK);
  EXPECT_EQ(got[1], 2.0F);
  EXPECT_EQ(queue.writer->WriteAudio(Floats(0x800000 - 2)), S_OK);
  EXPECT_TRUE(queue.IsReady());
  EXPECT_EQ(queue.writer->WriteAudio(Floats(1)), S_OK);
  EXPECT_FALSE(queue.IsReady());
}

// Ten waits for the first read alone: with ten for each the test would take a quarter of an hour.
TEST(AudioConnector, AnImportThatStopsEndsTheDataInSilenceAfterTenWaitsOfHalfASecond) {
  const Connector joined;
  const auto from = TestImport::Make(1000);
  from->channels = 1;
  from->promised = 200 * 65536;
  const auto to = TestExport::Make();
  const ULONGLONG start = GetTickCount64();
  joined.Run(from, to, 44100, 1);
  Await([&] { return !joined.IsRunning(); });
  EXPECT_GE(GetTickCount64() - start, 4900U);
  const std::vector<float>& samples = to->result->samples;
  ASSERT_EQ(samples.size(), 200U * 65536);
  EXPECT_EQ(samples[999], 999.0F);
  EXPECT_TRUE(std::all_of(samples.begin() + 1000, samples.end(), [](float s) { return s == 0; }));
  EXPECT_EQ(to->result->results, std::vector<HRESULT>(200, S_FALSE));
}

TEST(AudioConnector, AReadOfMoreThanTheQueueMayHoldGetsItAll) {
  const Connector joined;
  const auto from = TestImport::Make(8'000'000);
  const auto to = TestExport::Make();  // never started
  ASSERT_EQ(
      joined.connector->SetupImportToExport(Connector::Face(from), Connector::Face(to), 44100, 2),
      S_OK);
  from->Initialize(nullptr, joined.writer.Get());
  from->Start();
  const Floats all(16'000'000);
  EXPECT_EQ(joined.reader->ReadAudio(0, all), S_OK);
  ExpectCounting(all.ToVector(), 16'000'000);
  joined.task->Cancel();
}

TEST(AudioConnector, CancelEndsAnImportThatWaitsForRoomAndAnExportThatWaitsForData) {
  for (const bool stalled : {false, true}) {
    const Connector joined;
    const auto from = TestImport::Make(1LL << 40);
    if (stalled) from->frames = 10;
    const auto to = TestExport::Make();
    to->result->may_read = stalled;
    to->keep = false;
    joined.Run(from, to, 44100, 2);
    Await([&] { return stalled || !joined.IsReady(); });
    EXPECT_EQ(joined.task->Cancel(), E_NOTIMPL);
    EXPECT_FALSE(from->IsRunning());
    EXPECT_FALSE(to->IsRunning());
    EXPECT_EQ(from->references(), 1);
    EXPECT_EQ(to->references(), 1);
    EXPECT_FALSE(joined.IsRunning());
    EXPECT_EQ(joined.task->Cancel(), E_NOTIMPL);
  }
}

TEST(AudioConnector, StoresBlocksThatComeAfterAPollHasFoundTheExportEnded) {
  const Connector joined;
  const auto from = TestImport::Make(1);
  const auto to = TestExport::Make();
  ASSERT_EQ(
      joined.connector->SetupImportToExport(Connector::Face(from), Connector::Face(to), 44100, 2),
      S_OK);
  EXPECT_FALSE(joined.IsRunning());  // not started
  EXPECT_EQ(from->references(), 1);
  EXPECT_EQ(joined.writer->WriteAudio(Floats(4, 0.5F)), S_OK);
  const Floats block(4);
  EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
  EXPECT_EQ(block[3], 0.5F);
}

TEST(AudioConnector, ANewSetUpEndsTheEarlierOne) {
  const Connector joined;
  const auto from = TestImport::Make(1LL << 40);
  const auto to = TestExport::Make();
  to->keep = false;
  to->result->may_read = false;
  joined.Run(from, to, 44100, 2);
  Await([&] { return !joined.IsReady(); });
  const auto source = RampSource::Make('A');
  const auto next = TestExport::Make();
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(next), 44100, 2),
            S_OK);
  EXPECT_FALSE(from->IsRunning());
  EXPECT_FALSE(to->IsRunning());
  EXPECT_EQ(from->references(), 1);
  EXPECT_EQ(to->references(), 1);
  const Floats block(2);
  EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
  EXPECT_EQ(block[1], RampSource::Sample('A', 0, 1));
}

TEST(AudioConnector, PassesSamplesUnchangedWithoutAConverter) {
  struct Row {
    bool installed;
    LONG rate;
    SHORT channels;
    std::vector<LONG> set_up;
  };
  for (const Row& row : {Row{false, 22050, 1, {}},
                         {true, 22050, 1, {44100, 22050, 2, 1, 151}},
                         // A target that is not positive.
                         {true, 0, 2, {}},
                         {true, 44100, -1, {}}}) {
    SCOPED_TRACE(::testing::Message() << row.rate << " Hz, " << row.channels);
    std::unique_ptr<InstalledConverter> installed;
    const auto converter = MakeObject<TestConverter>(Habit::kRefusesSetUp);
    if (row.installed) {
      installed =
          std::make_unique<InstalledConverter>(MakeObject<SingleFactory>(converter.Get()).Get());
    }
    const Connector joined;
    const auto source = RampSource::Make('A');
    const auto to = TestExport::Make();
    ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), row.rate,
                                                    row.channels),
              S_OK);
    const Floats block(4);
    EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
    EXPECT_EQ(block[3], RampSource::Sample('A', 1, 1));
    EXPECT_EQ(converter->set_up, row.set_up);
  }
}

TEST(AudioConnector, EndsTheDataWhenAConverterReturnsNothing) {
  for (const Habit habit :
       {Habit::kFails, Habit::kGivesEmpty, Habit::kGivesNull, Habit::kGivesShorts}) {
    const auto converter = MakeObject<TestConverter>(habit);
    const InstalledConverter installed(MakeObject<SingleFactory>(converter.Get()).Get());
    const Connector joined;
    const auto source = RampSource::Make('A');
    const auto to = TestExport::Make();
    ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), 22050, 2),
              S_OK);
    const Floats block(64, 9.0F);
    EXPECT_EQ(joined.reader->ReadAudio(0, block), S_FALSE);
    EXPECT_EQ(block.ToVector(), std::vector<float>(64, 0.0F));
  }
}

TEST(AudioConnector, ReadsASourcesFormatAgainWhenItWasNotKnownAtSetUp) {
  const auto converter = MakeObject<TestConverter>(Habit::kPasses);
  const InstalledConverter installed(MakeObject<SingleFactory>(converter.Get()).Get());
  const Connector joined;
  const auto from = TestImport::Make(0);
  from->rate = from->channels = 0;
  const auto to = TestExport::Make();
  ASSERT_EQ(
      joined.connector->SetupImportToExport(Connector::Face(from), Connector::Face(to), 48000, 2),
      S_OK);
  EXPECT_EQ(joined.SampleCount(), 0);
  EXPECT_TRUE(converter->set_up.empty());
  from->rate = 24000;
  from->channels = 2;
  from->promised = from->frames = 600;
  from->Initialize(nullptr, joined.writer.Get());
  to->Initialize(nullptr, joined.reader.Get());
  joined.task->Start();
  EXPECT_EQ(converter->set_up, (std::vector<LONG>{24000, 48000, 2, 2, 151}));
  EXPECT_EQ(joined.SampleCount(), 1200);
  joined.task->Cancel();
}

TEST(AudioConnector, ConvertsToTheLastFrameWithoutATimeout) {
  const OurConverter converter;
  const double frequency = 997;
  const auto sine = [&](double frame, int rate) {
    return std::sin(2 * std::numbers::pi * frequency * frame / rate);
  };
  const Connector joined;
  const auto from = TestImport::Make(88200);
  from->channels = 1;
  from->block_samples = 1000;
  from->signal = [&](std::uint64_t i) {
    return static_cast<float>(sine(static_cast<double>(i), 44100));
  };
  const auto to = TestExport::Make();
  joined.Run(from, to, 48000, 2);
  Await([&] { return !joined.IsRunning(); });
  const auto& samples = to->result->samples;
  ASSERT_EQ(samples.size(), 192000U);
  // No read waited in vain.
  EXPECT_EQ(to->result->results, std::vector<HRESULT>(2, S_OK));
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

TEST(AudioConnector, ConvertsOneTakeOfAPoolAsIfNothingCameAfterIt) {
  const OurConverter converter;
  const auto source = RampSource::Make('A', 1);  // reports 4096 frames and delivers more
  const Connector joined;
  const auto to = TestExport::Make();
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), 88200, 1),
            S_OK);
  const Floats block(8192 + 2000, 9.0F);
  EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
  const float last = RampSource::Sample('A', 4095, 0);
  EXPECT_NEAR(block[8190], last, last * 0.2);
  for (std::size_t i = 8192 + 1000; i < 8192 + 2000; ++i) ASSERT_EQ(block[i], 0.0F);
}

}  // namespace
}  // namespace marlinda::testing
