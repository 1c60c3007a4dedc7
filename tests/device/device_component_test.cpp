// Playback, recording and scrubbing on the real wave devices of a private sound server. Times are
// only bounded generously: the device hands buffers back in steps of up to 150 ms.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>

#include "device/overlap_add.h"
#include "tests/support/com_client.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The playback object with both of its faces.
struct Player {
  Player(LONG rate, SHORT channels, SHORT bits, LONG milliseconds = 1000)
      : playback(Create<IAudioPlayback>(CLSID_CAudioPlayback)), writer(As<IAudioWriter>(playback)) {
    EXPECT_EQ(playback->SetFormat(rate, channels, bits), E_NOTIMPL);
    EXPECT_EQ(playback->SetBufferLength(milliseconds), S_OK);
  }
  bool Ready() const {
    LONG ready = -1;
    EXPECT_EQ(writer->QueryIsReady(&ready), S_OK);
    return ready != 0;
  }
  bool WaitUntilReady(double seconds = 30) const {
    const auto start = Clock::now();
    while (!Ready()) {
      if (SecondsSince(start) > seconds) return false;
      Sleep(10);
    }
    return true;
  }
  __int64 Position() const {
    __int64 position = -1;
    EXPECT_EQ(playback->GetPlaybackPos(&position), S_OK);
    return position;
  }
  ComPtr<IAudioPlayback> playback;
  ComPtr<IAudioWriter> writer;
};

TEST(Playback, OpensEveryWidthAndReportsThatWhatWasWrittenHasBeenPlayed) {
  for (const SHORT bits : {8, 16, 24, 32}) {
    Player player(44100, 2, bits);
    ASSERT_EQ(player.writer->OpenDevice(), S_OK) << bits;
    EXPECT_TRUE(player.Ready());
    Floats block(2 * 22050, 0.25F);
    ASSERT_EQ(player.writer->WriteAudio(block), S_OK);
    EXPECT_FALSE(player.Ready()) << bits;
    EXPECT_TRUE(player.WaitUntilReady()) << bits;
    EXPECT_EQ(player.writer->CloseDevice(), S_OK);
    EXPECT_EQ(player.writer->CloseDevice(), S_OK);
  }
}

TEST(Playback, WriterIsHeldBackWhenMoreThanTheBufferLengthIsQueued) {
  Player player(44100, 2, 16);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  Floats block(2 * 4410);
  const auto start = Clock::now();
  // Eleven blocks of 100 ms go in before more than a second is queued; forty need three seconds.
  for (int i = 0; i < 40; ++i) ASSERT_EQ(player.writer->WriteAudio(block), S_OK);
  EXPECT_GT(SecondsSince(start), 2.0);
  EXPECT_TRUE(player.WaitUntilReady());
  EXPECT_GE(SecondsSince(start), 3.5);
  player.writer->CloseDevice();
}

TEST(Playback, PositionStartsAtItsOffsetAndNeverRunsBackwards) {
  Player player(44100, 2, 16);
  EXPECT_EQ(player.playback->SetPosOffset(1000), S_OK);
  __int64 offset = 0;
  EXPECT_EQ(player.playback->GetPosOffset(&offset), S_OK);
  EXPECT_EQ(offset, 1000);
  EXPECT_EQ(player.Position(), 1000);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  Floats block(2 * 22050);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(player.writer->WriteAudio(block), S_OK);
  __int64 last = 1000;
  while (!player.Ready()) {
    const __int64 position = player.Position();
    ASSERT_GE(position, last);
    last = position;
    Sleep(20);
  }
  EXPECT_GT(last, 1000);
  EXPECT_LE(last, 1000 + 44100);
  player.writer->CloseDevice();
  EXPECT_EQ(player.Position(), 1000);
}

TEST(Playback, BreakWakesABlockedWriterAndRefusesBlocksUntilTheNextOpening) {
  Player player(44100, 2, 16);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  std::atomic<HRESULT> last{S_OK};
  std::atomic<int> written{0};
  std::thread producer([&] {
    Floats block(2 * 22050);
    while (SUCCEEDED(last)) {
      last = player.writer->WriteAudio(block);
      ++written;
    }
  });
  while (written < 3) Sleep(10);
  const auto start = Clock::now();
  EXPECT_EQ(player.playback->Break(), S_OK);
  producer.join();
  EXPECT_LT(SecondsSince(start), 5.0);
  EXPECT_EQ(last, E_FAIL);
  Floats block(2 * 441);
  EXPECT_EQ(player.writer->WriteAudio(block), E_FAIL);
  EXPECT_EQ(player.writer->CloseDevice(), S_OK);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  EXPECT_EQ(player.writer->WriteAudio(block), S_OK);
  player.writer->CloseDevice();
}

TEST(Playback, CloseFromAnotherThreadEndsTheWaitOfAWriter) {
  Player player(44100, 2, 16, 100);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  std::atomic<bool> ended{false};
  std::thread producer([&] {
    Floats block(2 * 44100);
    while (SUCCEEDED(player.writer->WriteAudio(block))) {
    }
    ended = true;
  });
  Sleep(300);
  EXPECT_EQ(player.writer->CloseDevice(), S_OK);
  producer.join();
  EXPECT_TRUE(ended);
}

TEST(Playback, EveryWaitingWriterWakesAndNoneWritesIntoTheNextOpening) {
  Player player(44100, 2, 16, 100);
  for (const bool broken : {false, true}) {
    ASSERT_EQ(player.writer->OpenDevice(), S_OK);
    ASSERT_EQ(player.writer->WriteAudio(Floats(2 * 44100 * 5)), S_OK);
    std::vector<std::thread> producers;
    std::atomic<int> begun{0};
    std::atomic<int> refused{0};
    for (int i = 0; i < 3; ++i) {
      producers.emplace_back([&] {
        const Floats block(2 * 441);
        ++begun;
        refused += player.writer->WriteAudio(block) == E_FAIL ? 1 : 0;
      });
    }
    while (begun < 3) Sleep(10);
    Sleep(500);
    EXPECT_EQ(broken ? player.playback->Break() : player.writer->CloseDevice(), S_OK);
    EXPECT_EQ(player.writer->OpenDevice(), S_OK);
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(refused, 3);
    EXPECT_TRUE(player.Ready());
    player.writer->CloseDevice();
  }
}

TEST(Playback, OutputLevelIsTheSignedPeakOfTheBlockPlayedLast) {
  Player player(44100, 2, 32);
  float level = -1;
  EXPECT_EQ(player.playback->GetOutputLevel(0, &level), S_OK);
  EXPECT_EQ(level, 0.0F);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  const std::vector<float> frames = {0.5F, -0.25F, -1.0F, -0.75F};
  ASSERT_EQ(player.writer->WriteAudio(Floats(frames)), S_OK);
  ASSERT_TRUE(player.WaitUntilReady());
  EXPECT_EQ(player.playback->GetOutputLevel(0, &level), S_OK);
  EXPECT_EQ(level, 0.5F);
  EXPECT_EQ(player.playback->GetOutputLevel(1, &level), S_OK);
  EXPECT_EQ(level, 0.0F);
  for (const SHORT channel : {2, -1, 32767}) {
    EXPECT_EQ(player.playback->GetOutputLevel(channel, &level), E_INVALIDARG);
    EXPECT_EQ(level, 0.0F);
  }
  player.writer->CloseDevice();
}

TEST(Playback, OddCallsGiveAnErrorAndDoNoHarm) {
  Player player(44100, 2, 16);
  Floats block(2 * 441);
  EXPECT_EQ(player.writer->WriteAudio(block), E_FAIL);  // closed
  EXPECT_EQ(player.playback->Break(), S_OK);

  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  EXPECT_EQ(player.writer->WriteAudio(Floats(0)), S_OK);
  EXPECT_EQ(player.writer->WriteAudio(Floats(7)), S_OK);  // three frames and a half
  EXPECT_TRUE(player.WaitUntilReady());
  // Opening again closes the device that is open.
  EXPECT_EQ(player.writer->OpenDevice(), S_OK);
  player.writer->CloseDevice();

  for (const SHORT channels : {0, -2}) {
    Player odd(44100, channels, 16);
    EXPECT_EQ(odd.writer->OpenDevice(), E_FAIL) << channels;
    EXPECT_EQ(odd.writer->WriteAudio(block), E_FAIL);
  }
  Player nowhere(44100, 2, 16);
  EXPECT_EQ(nowhere.playback->SetDevice(4711), S_OK);
  EXPECT_EQ(nowhere.writer->OpenDevice(), E_FAIL);
}

TEST(Playback, WriterFormatKeepsTheWidthThatWasChosen) {
  // Played as 8-bit, a block of 32-bit floats queues a quarter of the bytes; as float it fills the
  // buffer length four times as fast. The width shows in how much is held back.
  Player player(8000, 1, 32, 1000);
  EXPECT_EQ(player.writer->SetFormat(44100, 2), S_OK);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  EXPECT_EQ(player.writer->WriteAudio(Floats(std::vector<float>{0.1F, 0.2F})), S_OK);
  ASSERT_TRUE(player.WaitUntilReady());
  float level = 0;
  EXPECT_EQ(player.playback->GetOutputLevel(1, &level), S_OK);
  EXPECT_EQ(level, 0.2F);
  player.writer->CloseDevice();
}

TEST(Grabber, AnswersForALiveSourceAndReadsMoreOrLessThanADeviceBuffer) {
  auto grabber = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  auto reader = As<IAudioReader>(grabber);
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(reader->GetFormat(&rate, &channels), S_OK);
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channels, 2);
  EXPECT_EQ(reader->GetFormat(nullptr, &channels), E_POINTER);
  __int64 count = 77;
  EXPECT_EQ(reader->GetSampleCount(&count), E_NOTIMPL);
  EXPECT_EQ(count, 77);
  EXPECT_EQ(reader->ReadAudio(0, Floats(0)), S_OK);
  for (const SHORT bits : {8, 16, 32}) {
    ASSERT_EQ(grabber->SetFormat(44100, 2, bits), S_OK);
    ASSERT_EQ(reader->OpenDevice(), S_OK) << bits;
    for (const std::size_t frames : {1, 5000, 100}) {
      Floats block(2 * frames, 9.0F);
      ASSERT_EQ(reader->ReadAudio(-1, block), S_OK);
      // Silence, at 8 bits the code above the middle; what matters is that all of it was filled.
      for (const float sample : block.values()) ASSERT_NEAR(sample, 0.0F, 0.01);
    }
    EXPECT_EQ(reader->CloseDevice(), S_OK);
    EXPECT_EQ(reader->CloseDevice(), S_OK);
    // What was collected and not read is still there, and then there is nothing to wait for.
    Floats rest(2);
    HRESULT hr = S_OK;
    int reads = 0;
    while ((hr = reader->ReadAudio(0, rest)) == S_OK) ++reads;
    EXPECT_EQ(hr, E_FAIL);
    EXPECT_GT(reads, 0);
  }
}

TEST(Grabber, ClosingEndsTheWaitOfEveryReaderAndReadsBeforeOpeningFail) {
  auto grabber = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  auto reader = As<IAudioReader>(grabber);
  EXPECT_EQ(reader->ReadAudio(0, Floats(2)), E_FAIL);
  EXPECT_EQ(reader->ReadAudio(0, nullptr), E_INVALIDARG);
  EXPECT_EQ(reader->CloseDevice(), S_OK);
  ASSERT_EQ(reader->OpenDevice(), S_OK);
  std::vector<std::thread> waiting;
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  for (int i = 0; i < 2; ++i) {
    waiting.emplace_back([&] {
      const Floats minute(2 * 44100 * 60);
      ++begun;
      ended += reader->ReadAudio(0, minute) == E_FAIL ? 1 : 0;
    });
  }
  while (begun < 2) Sleep(10);
  Sleep(500);
  EXPECT_EQ(reader->CloseDevice(), S_OK);
  EXPECT_EQ(reader->OpenDevice(), S_OK);
  for (auto& thread : waiting) thread.join();
  EXPECT_EQ(ended, 2);
  EXPECT_EQ(reader->CloseDevice(), S_OK);

  EXPECT_EQ(grabber->SetFormat(44100, 0, 16), S_OK);
  EXPECT_EQ(reader->OpenDevice(), E_FAIL);
  EXPECT_EQ(grabber->SetFormat(44100, 2, 16), S_OK);
  EXPECT_EQ(grabber->SetDevice(4711), S_OK);
  EXPECT_EQ(reader->OpenDevice(), E_FAIL);
}

TEST(Grabber, LastReleaseEndsTheWaitOfAReader) {
  auto reader = As<IAudioReader>(Create<IAudioGrabber>(CLSID_CAudioGrabber));
  ASSERT_EQ(reader->OpenDevice(), S_OK);
  IAudioReader* const borrowed = reader.Get();
  std::atomic<HRESULT> result{S_OK};
  std::thread waiting([&] { result = borrowed->ReadAudio(0, Floats(2 * 44100 * 60)); });
  Sleep(300);
  reader.Reset();
  waiting.join();
  EXPECT_EQ(result, E_FAIL);
}

// A writer that keeps what it gets and lets the scrubber run a few passes at a time.
class ScrubWriter final : public TestObject<IAudioWriter> {
 public:
  STDMETHODIMP WriteAudio(SAFEARRAY* block) override {
    {
      const std::lock_guard lock(mutex);
      blocks.emplace_back(static_cast<float*>(block->pvData),
                          static_cast<float*>(block->pvData) + block->rgsabound[0].cElements);
    }
    Sleep(5);
    return result;
  }
  STDMETHODIMP OpenDevice() override { return ++opened, S_OK; }
  STDMETHODIMP CloseDevice() override { return ++closed, S_OK; }
  STDMETHODIMP SetFormat(LONG, SHORT) override { return ++formats, S_OK; }
  STDMETHODIMP QueryIsReady(LONG*) override { return S_OK; }
  std::vector<std::vector<float>> Blocks() {
    const std::lock_guard lock(mutex);
    return blocks;
  }
  std::atomic<int> opened{0}, closed{0}, formats{0};
  std::atomic<HRESULT> result{S_OK};
  std::mutex mutex;
  std::vector<std::vector<float>> blocks;
};

TEST(Scrubber, PlaysSilenceFirstAndThenTheBlockUnderTheCursorCrossfaded) {
  ScrubWriter writer;
  auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
  ASSERT_EQ(scrubber->Start(&writer, 9, 44100, 2), S_OK);
  while (writer.Blocks().size() < 3) Sleep(5);
  std::vector<float> cursor(16);
  for (std::size_t i = 0; i < cursor.size(); ++i) cursor[i] = static_cast<float>(i + 1);
  ASSERT_EQ(scrubber->WriteBlock(Floats(cursor)), S_OK);
  const std::size_t before = writer.Blocks().size();
  while (writer.Blocks().size() < before + 5) Sleep(5);
  ASSERT_EQ(scrubber->Stop(), S_OK);
  EXPECT_EQ(writer.opened, 1);
  EXPECT_EQ(writer.closed, 1);
  EXPECT_EQ(writer.formats, 0);

  const auto blocks = writer.Blocks();
  ASSERT_EQ(blocks[0], std::vector<float>(8, 0.0F));
  std::size_t fade = 0;
  while (blocks[fade] == std::vector<float>(8, 0.0F)) ++fade;
  const auto w = ScrubWindow(8);
  for (std::size_t j = 0; j < 4; ++j) {
    for (std::size_t c = 0; c < 2; ++c) {
      const std::size_t i = 2 * j + c;
      EXPECT_FLOAT_EQ(blocks[fade][i], cursor[i] * w[j]);
      EXPECT_FLOAT_EQ(blocks[fade + 1][i], cursor[i] * w[j] + cursor[i + 8] * w[j + 4]);
      EXPECT_EQ(blocks[fade + 2][i], blocks[fade + 1][i]);
    }
  }
  // The writer is kept after Stop, and let go with the scrubber.
  EXPECT_EQ(writer.Held(), 1);
  scrubber.Reset();
  EXPECT_EQ(writer.Held(), 0);
}

TEST(Scrubber, RefusesWhatItCannotPlayAndSurvivesAWriterThatFails) {
  ScrubWriter writer;
  auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
  EXPECT_EQ(scrubber->Start(&writer, 1024, 44100, 0), E_INVALIDARG);
  EXPECT_EQ(scrubber->Start(&writer, 1024, 44100, -1), E_INVALIDARG);
  EXPECT_EQ(scrubber->Start(&writer, -1, 44100, 2), E_INVALIDARG);
  // More than there can be: refused before anything of that size is made.
  EXPECT_EQ(scrubber->Start(&writer, 0x7FFFFFFF, 0x7FFFFFFF, 1), E_INVALIDARG);
  EXPECT_EQ(scrubber->Start(&writer, 0x7FFFFFFF, 0x7FFFFFFF, 32767), E_INVALIDARG);
  EXPECT_EQ(scrubber->Start(nullptr, 1024, 44100, 2), E_POINTER);
  EXPECT_EQ(scrubber->WriteBlock(Floats(2048)), E_FAIL);
  EXPECT_EQ(scrubber->Stop(), S_OK);
  EXPECT_EQ(writer.opened, 0);

  // Blocks of nothing.
  ASSERT_EQ(scrubber->Start(&writer, 1, 44100, 2), S_OK);
  EXPECT_EQ(writer.Held(), 1) << "the thread takes no reference of its own";
  EXPECT_EQ(scrubber->WriteBlock(Floats(0)), S_OK);
  while (writer.Blocks().empty()) Sleep(5);
  EXPECT_EQ(scrubber->Stop(), S_OK);
  EXPECT_EQ(writer.Blocks()[0].size(), 0U);
  EXPECT_LT(writer.Blocks().size(), 1000U) << "the thread spins";
  const std::size_t before = writer.Blocks().size();

  writer.result = E_FAIL;
  ASSERT_EQ(scrubber->Start(&writer, 1025, 44100, 1), S_OK);
  EXPECT_EQ(scrubber->Start(&writer, 1025, 44100, 1), E_FAIL);
  EXPECT_EQ(scrubber->WriteBlock(nullptr), E_INVALIDARG);
  EXPECT_EQ(scrubber->WriteBlock(Floats(1023)), E_INVALIDARG);
  EXPECT_EQ(scrubber->WriteBlock(Floats(1024)), S_OK);
  while (writer.Blocks().size() < before + 2) Sleep(5);
  EXPECT_EQ(writer.Blocks()[before].size(), 512U);
  scrubber.Reset();  // running: stops, closes the writer and releases it
  EXPECT_EQ(writer.closed, 2);
  EXPECT_EQ(writer.Held(), 0);
}

}  // namespace
}  // namespace marlinda::testing
