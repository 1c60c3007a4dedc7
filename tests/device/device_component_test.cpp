// Playback, recording and scrubbing on the real wave devices of a private sound server. Waits have
// no limit: CTest ends a hang.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "device/overlap_add.h"
#include "tests/support/com_client.h"
#include "tests/support/test_object.h"
// After windows.h.
#include <mmsystem.h>

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
  void WaitUntilReady() const {
    while (!Ready()) Sleep(10);
  }
  __int64 Position() const {
    __int64 position = -1;
    EXPECT_EQ(playback->GetPlaybackPos(&position), S_OK);
    return position;
  }
  ComPtr<IAudioPlayback> playback;
  ComPtr<IAudioWriter> writer;
};

TEST(Playback, OpensEveryWidthAndIsReadyOnceAllHasBeenPlayed) {
  for (const SHORT bits : {8, 16, 24, 32}) {
    Player player(44100, 2, bits);
    ASSERT_EQ(player.writer->OpenDevice(), S_OK) << bits;
    EXPECT_TRUE(player.Ready());
    EXPECT_EQ(player.writer->WriteAudio(Floats(0)), S_OK) << bits;
    EXPECT_EQ(player.writer->WriteAudio(Floats(7)), S_OK);  // three frames and a half
    ASSERT_EQ(player.writer->WriteAudio(Floats(2 * 22050, 0.25F)), S_OK) << bits;
    EXPECT_FALSE(player.Ready()) << bits;
    player.WaitUntilReady();
    EXPECT_EQ(player.writer->CloseDevice(), S_OK);
    EXPECT_EQ(player.writer->CloseDevice(), S_OK);
  }
}

TEST(Playback, WriterWaitsWhileMoreThanTheBufferLengthIsQueued) {
  Player player(44100, 2, 16);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  Floats block(2 * 4410);
  const auto start = Clock::now();
  // Eleven blocks of 100 ms go in before more than a second is queued; forty need three seconds.
  for (int i = 0; i < 40; ++i) ASSERT_EQ(player.writer->WriteAudio(block), S_OK);
  EXPECT_GT(SecondsSince(start), 2.0);
  player.WaitUntilReady();
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

TEST(Playback, BreakAndCloseEndTheWaitOfEveryWriter) {
  for (const bool broken : {false, true}) {
    Player player(44100, 2, 16, 100);
    ASSERT_EQ(player.writer->OpenDevice(), S_OK);
    std::vector<std::thread> producers;
    std::atomic<int> written{0};
    std::atomic<int> refused{0};
    for (int i = 0; i < 3; ++i) {
      producers.emplace_back([&] {
        const Floats block(2 * 22050);
        HRESULT hr = S_OK;
        while ((hr = player.writer->WriteAudio(block)) == S_OK) ++written;
        refused += hr == E_FAIL ? 1 : 0;
      });
    }
    while (written < 3) Sleep(10);
    EXPECT_EQ(broken ? player.playback->Break() : player.writer->CloseDevice(), S_OK);
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(refused, 3);
    EXPECT_TRUE(player.Ready());
    EXPECT_EQ(player.Position(), 0);
    EXPECT_EQ(player.writer->WriteAudio(Floats(2)), E_FAIL);
    ASSERT_EQ(player.writer->OpenDevice(), S_OK);
    EXPECT_EQ(player.writer->WriteAudio(Floats(2)), S_OK);
  }
}

// Closes the devices of this process behind the module's back, as a driver does that is removed.
// The system numbers its handles.
void RemoveOutputs() {
  for (UINT_PTR handle = 0x8000; handle <= 0xFFFF; ++handle) {
    UINT id = 0;
    const auto device = reinterpret_cast<HWAVEOUT>(handle);
    if (waveOutGetID(device, &id) != MMSYSERR_NOERROR) continue;
    waveOutReset(device);
    EXPECT_EQ(waveOutClose(device), MMSYSERR_NOERROR);
  }
}

TEST(Playback, BlockThatTheDeviceRefusesFailsAndEndsTheOpening) {
  Player player(44100, 2, 16);
  player.playback->SetPosOffset(1000);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  ASSERT_EQ(player.writer->WriteAudio(Floats(2 * 22050)), S_OK);
  RemoveOutputs();
  EXPECT_EQ(player.writer->WriteAudio(Floats(2 * 441)), E_FAIL);
  EXPECT_EQ(player.Position(), 1000);
  EXPECT_TRUE(player.Ready());
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  ASSERT_EQ(player.writer->WriteAudio(Floats(2 * 441)), S_OK);
  player.WaitUntilReady();
}

TEST(Playback, OutputLevelIsTheSignedPeakOfTheBlockPlayedLast) {
  Player player(44100, 2, 32);
  float level = -1;
  EXPECT_EQ(player.playback->GetOutputLevel(0, &level), S_OK);
  EXPECT_EQ(level, 0.0F);
  ASSERT_EQ(player.writer->OpenDevice(), S_OK);
  const std::vector<float> frames = {0.5F, -0.25F, -1.0F, -0.75F};
  ASSERT_EQ(player.writer->WriteAudio(Floats(frames)), S_OK);
  player.WaitUntilReady();
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
  EXPECT_EQ(reader->CloseDevice(), S_OK);
  for (auto& thread : waiting) thread.join();
  EXPECT_EQ(ended, 2);

  EXPECT_EQ(grabber->SetFormat(44100, 0, 16), S_OK);
  EXPECT_EQ(reader->OpenDevice(), E_FAIL);
  EXPECT_EQ(grabber->SetFormat(44100, 2, 16), S_OK);
  EXPECT_EQ(grabber->SetDevice(4711), S_OK);
  EXPECT_EQ(reader->OpenDevice(), E_FAIL);
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
    if (on_write) on_write();
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
  // Runs on the scrubber's thread.
  std::function<void()> on_write;
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

TEST(Scrubber, WriterMayCallTheScrubberThatCallsItAndStopIt) {
  for (int round = 0; round < 10; ++round) {
    ScrubWriter writer;
    const auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
    std::atomic<int> calls{0};
    writer.on_write = [&] {
      if (calls++ > 0) return;
      EXPECT_EQ(scrubber->WriteBlock(Floats(4)), S_OK);
      EXPECT_EQ(scrubber->Stop(), S_OK);
    };
    ASSERT_EQ(scrubber->Start(&writer, 2, 44100, 2), S_OK);
    while (calls == 0) Sleep(0);
    EXPECT_EQ(scrubber->Stop(), S_OK);
    // Stop of the writer's own does not wait for the call that it is made from.
    while (scrubber->Start(&writer, 2, 44100, 2) == E_FAIL) Sleep(1);
    EXPECT_EQ(writer.closed, 1);
    EXPECT_EQ(scrubber->Stop(), S_OK);
  }
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
