#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

#include "tests/support/com_client.h"
#include "tests/support/our_converter.h"
#include "tests/support/process_counts.h"
#include "tests/support/ramp_source.h"
#include "tests/task/test_filters.h"

namespace marlinda::testing {
namespace {

using Habit = TestConverter::Habit;

// A connector and its faces.
struct Connector {
  ComPtr<IAudioConnector> connector = Create<IAudioConnector>(CLSID_CAudioConnector);
  ComPtr<ICoreTask> task = As<ICoreTask>(connector);
  ComPtr<IAudioReader> reader = As<IAudioReader>(connector);
  ComPtr<IAudioWriter> writer = As<IAudioWriter>(connector);

  // Sets up, readies both filters and starts.
  void Run(const ComPtr<TestImport>& from, const ComPtr<TestExport>& to, LONG rate,
           SHORT channels) const {
    ASSERT_EQ(connector->SetupImportToExport(Face(from), Face(to), rate, channels), S_OK);
    from->Initialize(nullptr, writer.Get());
    to->Initialize(nullptr, reader.Get());
    EXPECT_EQ(task->Start(), E_NOTIMPL);
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
bool WaitUntil(const Condition& condition, int seconds = 30) {
  for (int i = 0; i < seconds * 100; ++i) {
    if (condition()) return true;
    Sleep(10);
  }
  return condition();
}

TEST(AudioConnector, PassesEqualFormatsBitForBitAndLetsGoOfTheFiltersAtTheEnd) {
  const OurConverter converter;  // not needed, and not asked
  const Connector joined;
  const auto from = TestImport::Make(1'000'003);
  from->block_samples = 4999;
  const auto to = TestExport::Make();
  joined.Run(from, to, 44100, 2);
  EXPECT_GT(ReferenceCount(Connector::Face(from)), 1U);
  float progress = 0;
  EXPECT_EQ(joined.task->GetProgress(&progress), S_OK);
  EXPECT_EQ(progress, 0.25F);
  ASSERT_TRUE(WaitForTask(joined.task.Get()));

  ASSERT_EQ(to->result->samples.size(), 2'000'006U);
  for (std::size_t i = 0; i < to->result->samples.size(); ++i) {
    ASSERT_EQ(to->result->samples[i], Counting(i)) << i;
  }
  EXPECT_EQ(to->result->results, std::vector<HRESULT>(16, S_OK));
  EXPECT_EQ(ReferenceCount(Connector::Face(from)), 1U);
  EXPECT_EQ(ReferenceCount(Connector::Face(to)), 1U);
  EXPECT_EQ(joined.task->GetProgress(&progress), S_OK);
  EXPECT_EQ(progress, 1.0F);
  VARIANT_BOOL running = VARIANT_TRUE;
  EXPECT_EQ(joined.task->QueryIsTaskRunning(&running), S_OK);
  EXPECT_EQ(running, VARIANT_FALSE);

  // The same object serves again.
  const auto again = TestExport::Make();
  const auto next = TestImport::Make(1000);
  joined.Run(next, again, 44100, 2);
  ASSERT_TRUE(WaitForTask(joined.task.Get()));
  ASSERT_EQ(again->result->samples.size(), 2000U);
  EXPECT_EQ(again->result->samples[1999], 1999.0F);
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
  const Floats none(0);
  EXPECT_EQ(joined.reader->ReadAudio(0, none), S_OK);
  const Floats odd(3);
  EXPECT_EQ(joined.reader->ReadAudio(0, odd), S_OK);
  EXPECT_EQ(odd[2], RampSource::Sample('A', 51, 0));
  EXPECT_EQ(log, (CallLog{"A.ReadAudio(0, 131070)"}));
  source->read_result = E_FAIL;  // what it does not deliver is silence
  const Floats large(200'000, 9.0F);
  EXPECT_EQ(joined.reader->ReadAudio(0, large), S_OK);
  EXPECT_EQ(log.back(), "A.ReadAudio(65535, 131070)");
  EXPECT_EQ(large[131070 - 104], RampSource::Sample('A', 65534, 1));
  EXPECT_EQ(large[131070 - 103], 0.0F);
  EXPECT_EQ(large[199'999], 0.0F);

  __int64 count = 0;
  EXPECT_EQ(joined.reader->GetSampleCount(&count), S_OK);
  EXPECT_EQ(count, 4096);
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), 22050, 2),
            S_OK);
  EXPECT_EQ(joined.reader->GetSampleCount(&count), S_OK);
  EXPECT_EQ(count, 2048);

  const auto shapeless = RampSource::Make('B', 0);
  ASSERT_EQ(joined.connector->SetupReaderToExport(shapeless.Get(), Connector::Face(to), 44100, 2),
            S_OK);
  EXPECT_EQ(joined.reader->ReadAudio(0, large), S_FALSE);
  EXPECT_EQ(large[0], 0.0F);
}

TEST(AudioConnector, RefusesWhatItCannotUseAndKeepsWhatItHad) {
  const Connector joined;
  const auto source = RampSource::Make('A');
  const auto from = TestImport::Make(1);
  const auto to = TestExport::Make();
  IUnknown* const exporter = Connector::Face(to);
  ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), exporter, 44100, 2), S_OK);
  EXPECT_EQ(joined.connector->SetupReaderToExport(nullptr, exporter, 1, 1), E_POINTER);
  EXPECT_EQ(joined.connector->SetupReaderToExport(source.Get(), nullptr, 1, 1), E_POINTER);
  EXPECT_EQ(joined.connector->SetupReaderToExport(exporter, exporter, 1, 1), E_NOINTERFACE);
  EXPECT_EQ(joined.connector->SetupReaderToExport(source.Get(), source.Get(), 1, 1), E_NOINTERFACE);
  EXPECT_EQ(joined.connector->SetupReaderToExport(source.Get(), exporter, 0, 1), E_INVALIDARG);
  EXPECT_EQ(joined.connector->SetupReaderToExport(joined.reader.Get(), exporter, 1, 1),
            E_INVALIDARG);
  EXPECT_EQ(joined.connector->SetupImportToExport(source.Get(), exporter, 1, 1), E_NOINTERFACE);
  EXPECT_EQ(joined.connector->SetupImportToExport(Connector::Face(from), exporter, 1, 0),
            E_INVALIDARG);
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(joined.reader->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  const Floats block(2);
  EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
  EXPECT_EQ(block[1], RampSource::Sample('A', 0, 1));

  EXPECT_EQ(joined.reader->ReadAudio(0, nullptr), E_INVALIDARG);
  EXPECT_EQ(joined.reader->ReadAudio(0, ForeignArray(VT_R8)), E_INVALIDARG);
  EXPECT_EQ(joined.writer->WriteAudio(nullptr), E_INVALIDARG);
  EXPECT_EQ(joined.writer->WriteAudio(ForeignArray(VT_R4, 2)), E_INVALIDARG);
  EXPECT_EQ(joined.reader->GetFormat(nullptr, &channels), E_POINTER);
  EXPECT_EQ(joined.reader->GetSampleCount(nullptr), E_POINTER);
  EXPECT_EQ(joined.task->QueryIsTaskRunning(nullptr), E_POINTER);
  EXPECT_EQ(joined.task->GetProgress(nullptr), E_POINTER);
  EXPECT_EQ(joined.task->GetName(nullptr), E_POINTER);
  EXPECT_EQ(joined.writer->QueryIsReady(nullptr), E_POINTER);
  Bstr name;
  EXPECT_EQ(joined.task->GetName(name.Receive()), S_OK);
  EXPECT_NE(static_cast<BSTR>(name), nullptr);
  EXPECT_EQ(name.str(), L"");
  EXPECT_EQ(joined.task->Cancel(), E_NOTIMPL);
  EXPECT_EQ(Create<ICoreTask>(CLSID_CAudioConnector)->Start(), E_NOTIMPL);
}

TEST(AudioConnector, IsAPlainQueueBeforeASetUpAndSaysWhenItIsFull) {
  const Connector queue;
  LONG ready = 0;
  EXPECT_EQ(queue.writer->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 1);
  const Floats block(std::vector<float>{1, 2, 3});
  EXPECT_EQ(queue.writer->WriteAudio(block), S_OK);
  const Floats got(2);
  EXPECT_EQ(queue.reader->ReadAudio(0, got), S_OK);
  EXPECT_EQ(got[1], 2.0F);
  EXPECT_EQ(queue.writer->WriteAudio(Floats(0x800000 - 2)), S_OK);
  EXPECT_EQ(queue.writer->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 1);
  EXPECT_EQ(queue.writer->WriteAudio(Floats(1)), S_OK);
  EXPECT_EQ(queue.writer->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 0);
}

TEST(AudioConnector, AnImportThatStopsEndsTheDataInSilenceAfterTenWaitsOfHalfASecond) {
  const Connector joined;
  const auto from = TestImport::Make(1000);
  from->promised = 500'000;
  const auto to = TestExport::Make();
  const ULONGLONG start = GetTickCount64();
  joined.Run(from, to, 44100, 2);
  ASSERT_TRUE(WaitForTask(joined.task.Get()));
  const ULONGLONG took = GetTickCount64() - start;
  EXPECT_GE(took, 4900U);
  EXPECT_LT(took, 20'000U);  // the seven reads that follow do not wait again
  ASSERT_EQ(to->result->samples.size(), 1'000'000U);
  EXPECT_EQ(to->result->samples[1999], 1999.0F);
  for (std::size_t i = 2000; i < 1'000'000; ++i) ASSERT_EQ(to->result->samples[i], 0.0F) << i;
  EXPECT_EQ(to->result->results, std::vector<HRESULT>(8, S_FALSE));
}

TEST(AudioConnector, AReadOfMoreThanTheQueueMayHoldGetsItAll) {
  const Connector joined;
  const auto from = TestImport::Make(8'000'000);
  const auto to = TestExport::Make();
  to->Initialize(nullptr, joined.reader.Get());  // nothing to do, so that it leaves us the reading
  ASSERT_EQ(
      joined.connector->SetupImportToExport(Connector::Face(from), Connector::Face(to), 44100, 2),
      S_OK);
  from->Initialize(nullptr, joined.writer.Get());
  joined.task->Start();
  const Floats all(16'000'000);
  EXPECT_EQ(joined.reader->ReadAudio(0, all), S_OK);
  for (std::size_t i = 0; i < 16'000'000; ++i) ASSERT_EQ(all[i], Counting(i)) << i;
  joined.task->Cancel();
}

TEST(AudioConnector, CancelEndsBothSidesAlsoAnImportThatWaitsForRoomOrAnExportThatWaitsForData) {
  for (const bool stalled : {false, true}) {
    const Connector joined;
    const auto from = TestImport::Make(1LL << 40);
    if (stalled) from->frames = 10;
    const auto to = TestExport::Make();
    to->pause = 10;
    to->keep = false;
    joined.Run(from, to, 44100, 2);
    LONG ready = 1;
    ASSERT_TRUE(stalled || WaitUntil([&] {
                  joined.writer->QueryIsReady(&ready);
                  return ready == 0;
                }));
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(joined.task->Cancel(), E_NOTIMPL);
    EXPECT_LT(GetTickCount64() - start, 4500U);
    EXPECT_FALSE(from->IsRunning());
    EXPECT_FALSE(to->IsRunning());
    EXPECT_EQ(ReferenceCount(Connector::Face(from)), 1U);
    EXPECT_EQ(joined.task->Cancel(), E_NOTIMPL);
    const Floats late(4, 9.0F);
    EXPECT_EQ(joined.writer->WriteAudio(late), S_OK);
    EXPECT_EQ(joined.reader->ReadAudio(0, late), S_FALSE);
    EXPECT_EQ(late[0], 0.0F);
  }
}

TEST(AudioConnector, ThreadsAndObjectsGoWhenTheExportIsCancelledAndAllIsReleasedWithoutAWord) {
  const unsigned threads = CountThreads();
  {
    const Connector joined;
    const auto from = TestImport::Make(10'000'000);
    const auto to = TestExport::Make();
    to->pause = 10;
    joined.Run(from, to, 44100, 2);
    ASSERT_TRUE(WaitUntil([&] { return to->result->blocks > 3; }));
    to->Cancel();
  }
  EXPECT_TRUE(WaitUntil([] { return TestTask::alive == 0; }));
  EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
}

TEST(AudioConnector, PassesSamplesUnchangedWhenNoConverterCanBeHad) {
  for (const bool there : {false, true}) {
    std::unique_ptr<InstalledConverter> installed;
    const auto converter = MakeObject<TestConverter>(Habit::kRefusesSetUp);
    if (there) {
      installed =
          std::make_unique<InstalledConverter>(MakeObject<SingleFactory>(converter.Get()).Get());
    }
    const Connector joined;
    const auto source = RampSource::Make('A');
    const auto to = TestExport::Make();
    ASSERT_EQ(joined.connector->SetupReaderToExport(source.Get(), Connector::Face(to), 22050, 1),
              S_OK);
    const Floats block(4);
    EXPECT_EQ(joined.reader->ReadAudio(0, block), S_OK);
    EXPECT_EQ(block[3], RampSource::Sample('A', 1, 1));
    EXPECT_EQ(converter->set_up.empty(), !there);
    if (there) {
      EXPECT_EQ(converter->set_up, (std::vector<LONG>{44100, 22050, 2, 1, 151}));
    }
  }
}

TEST(AudioConnector, AConverterThatGivesNothingMakesSilenceAndNoHang) {
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
  __int64 count = -1;
  EXPECT_EQ(joined.reader->GetSampleCount(&count), S_OK);
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(converter->set_up.empty());
  from->rate = 24000;
  from->channels = 2;
  from->promised = from->frames = 600;
  from->Initialize(nullptr, joined.writer.Get());
  to->Initialize(nullptr, joined.reader.Get());
  joined.task->Start();
  EXPECT_EQ(converter->set_up, (std::vector<LONG>{24000, 48000, 2, 2, 151}));
  EXPECT_EQ(joined.reader->GetSampleCount(&count), S_OK);
  EXPECT_EQ(count, 1200);
  joined.task->Cancel();
}

TEST(AudioConnector, ConvertsToTheLastFrameAndAtOnce) {
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
  ASSERT_TRUE(WaitForTask(joined.task.Get()));
  const auto& samples = to->result->samples;
  ASSERT_EQ(samples.size(), 192000U);
  // Not what a wait in vain would give.
  EXPECT_EQ(to->result->results, std::vector<HRESULT>(2, S_OK));
  double error = 0;
  double last = 0;  // the frames that a converter cannot give before it knows what follows them
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
  const auto source = RampSource::Make('A', 1);  // says 4096 frames and gives more
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

TEST(AudioConnector, MemoryStaysBoundedHoweverFastTheImportIs) {
  const Connector joined;
  const auto from = TestImport::Make(2LL * 3600 * 44100);
  const auto to = TestExport::Make();
  to->keep = false;
  to->pause = 5;
  joined.Run(from, to, 44100, 2);
  std::size_t most = 0;
  LONG ready = 1;
  while (to->result->blocks < 150 || ready != 0) {
    ASSERT_TRUE(to->IsRunning());
    most = std::max(most, CountPrivateBytes());
    joined.writer->QueryIsReady(&ready);
    Sleep(1);
  }
  joined.task->Cancel();
  EXPECT_GT(most, std::size_t{32} << 20);  // the measure sees a full queue
  EXPECT_LT(most, std::size_t{100} << 20);
}

}  // namespace
}  // namespace marlinda::testing
