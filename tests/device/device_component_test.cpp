// Playback, recording and scrubbing on the real wave devices of a private sound server, whose
// microphone is its speaker. Waits have no limit: CTest ends a hang.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

#include "device/overlap_add.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"
#include "tests/support/test_object.h"
// After windows.h.
#include <mmsystem.h>

namespace marlinda::testing {
namespace {

template <class Condition>
void WaitUntil(Condition&& condition) {
  while (!condition()) Sleep(5);
}

struct Player {
  Player(LONG rate, SHORT channels, SHORT bits, LONG milliseconds = 1000) {
    EXPECT_EQ(playback->SetFormat(rate, channels, bits), E_NOTIMPL);
    EXPECT_EQ(playback->SetBufferLength(milliseconds), S_OK);
  }
  IAudioWriter* operator->() const { return writer.Get(); }
  bool Ready() const {
    LONG ready = -1;
    EXPECT_EQ(writer->QueryIsReady(&ready), S_OK);
    return ready != 0;
  }
  void Drain() const {
    WaitUntil([&] { return Ready(); });
  }
  __int64 Position() const {
    __int64 position = -1;
    EXPECT_EQ(playback->GetPlaybackPos(&position), S_OK);
    return position;
  }
  float Level(SHORT channel, HRESULT expected = S_OK) const {
    float level = -1;
    EXPECT_EQ(playback->GetOutputLevel(channel, &level), expected) << channel;
    return level;
  }
  const ComPtr<IAudioPlayback> playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(playback);
};

TEST(Playback, PacesItsWriterAndCountsFramesFromItsOffset) {
  const Player player(44100, 2, 16);
  EXPECT_EQ(player.playback->SetPosOffset(1000), S_OK);
  __int64 last = 0;
  EXPECT_EQ(player.playback->GetPosOffset(&last), S_OK);
  EXPECT_EQ(last, 1000);
  EXPECT_EQ(player.Position(), 1000);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  EXPECT_EQ(player->WriteAudio(Floats(0)), S_OK);
  EXPECT_EQ(player->WriteAudio(Floats(1)), S_OK);  // half a frame
  EXPECT_EQ(player->WriteAudio(Floats(7)), S_OK);  // three frames and a half
  const Floats block(2 * 4410);
  const auto start = std::chrono::steady_clock::now();
  const auto passed = [&] { return std::chrono::steady_clock::now() - start; };
  // Eleven blocks of 100 ms go in before more than a second is queued; forty need three seconds.
  for (int i = 0; i < 40; ++i) ASSERT_EQ(player->WriteAudio(block), S_OK);
  EXPECT_GT(passed(), std::chrono::seconds(2));
  while (!player.Ready()) {
    const __int64 position = player.Position();
    ASSERT_GE(position, last);
    last = position;
    Sleep(20);
  }
  EXPECT_GE(passed(), std::chrono::milliseconds(3500));
  EXPECT_GT(last, 1000 + 2 * 44100);
  EXPECT_LE(last, 1000 + 3 + 4 * 44100);
  player->CloseDevice();
  EXPECT_EQ(player.Position(), 1000);
}

TEST(Playback, BreakAndCloseEndTheWaitOfEveryWriter) {
  for (const bool broken : {false, true}) {
    const Player player(44100, 2, 16, 100);
    ASSERT_EQ(player->OpenDevice(), S_OK);
    std::vector<std::thread> producers;
    std::atomic<int> written{0};
    std::atomic<int> refused{0};
    for (int i = 0; i < 3; ++i) {
      producers.emplace_back([&] {
        const Floats block(2 * 22050);
        HRESULT hr = S_OK;
        while ((hr = player->WriteAudio(block)) == S_OK) ++written;
        refused += hr == E_FAIL ? 1 : 0;
      });
    }
    WaitUntil([&] { return written >= 3; });
    EXPECT_EQ(broken ? player.playback->Break() : player->CloseDevice(), S_OK);
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(refused, 3);
    EXPECT_TRUE(player.Ready());
    EXPECT_EQ(player.Position(), 0);
    EXPECT_EQ(player->WriteAudio(Floats(2)), E_FAIL);
    ASSERT_EQ(player->OpenDevice(), S_OK);
    EXPECT_EQ(player->WriteAudio(Floats(2)), S_OK);
  }
}

TEST(Playback, BreakSilencesTheSoundThatIsQueued) {
  const auto reader = As<IAudioReader>(Create<IAudioGrabber>(CLSID_CAudioGrabber));
  ASSERT_EQ(reader->OpenDevice(), S_OK);
  const auto heard = [&] {
    const Floats block(2 * 4410);
    EXPECT_EQ(reader->ReadAudio(0, block), S_OK);
    return std::ranges::max(block.values()) > 0.1F;
  };
  const Player player(8000, 1, 8);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  // Longer than CTest lets a test run.
  ASSERT_EQ(player->WriteAudio(Floats(8000 * 1000, 0.5F)), S_OK);
  WaitUntil(heard);
  EXPECT_EQ(player.playback->Break(), S_OK);
  // Longer than a gap in a sound whose player is late.
  for (int silent = 0; silent < 20;) silent = heard() ? 0 : silent + 1;
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
  const Player player(44100, 2, 16);
  player.playback->SetPosOffset(1000);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  ASSERT_EQ(player->WriteAudio(Floats(2 * 22050)), S_OK);
  RemoveOutputs();
  EXPECT_EQ(player->WriteAudio(Floats(2 * 441)), E_FAIL);
  EXPECT_EQ(player.Position(), 1000);
  EXPECT_TRUE(player.Ready());
  ASSERT_EQ(player->OpenDevice(), S_OK);
  ASSERT_EQ(player->WriteAudio(Floats(2 * 441)), S_OK);
  player.Drain();
}

TEST(Playback, OutputLevelsAreTheSignedPeaksOfTheBlockPlayedLast) {
  const Player player(48000, 6, 32);
  EXPECT_EQ(player.Level(0), 0.0F);
  // Opening again closes the device that is open.
  ASSERT_EQ(player->OpenDevice(), S_OK);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  const std::vector<float> frames = {0.5F,  -0.25F, 0, 0.125F, 0, 0.75F,
                                     -1.0F, -0.75F, 0, 0.25F,  0, 0.5F};
  ASSERT_EQ(player->WriteAudio(Floats(frames)), S_OK);
  player.Drain();
  const float levels[] = {0.5F, 0, 0, 0.25F, 0, 0.75F};
  for (SHORT channel = 0; channel < 6; ++channel) EXPECT_EQ(player.Level(channel), levels[channel]);
  for (const SHORT channel : {-1, 6, 32767}) player.Level(channel, E_INVALIDARG);
}

TEST(Playback, RefusesFormatsAndDevicesThatAreNone) {
  for (const SHORT channels : {0, -2, 2}) {
    const Player odd(44100, channels, 16);
    EXPECT_EQ(odd.playback->SetDevice(channels == 2 ? 4711 : 0), S_OK);
    EXPECT_EQ(odd->OpenDevice(), E_FAIL) << channels;
    EXPECT_EQ(odd->WriteAudio(Floats(2)), E_FAIL);
    EXPECT_EQ(odd.playback->Break(), S_OK);
  }
}

class Grabber : public ::testing::Test {
 protected:
  const ComPtr<IAudioGrabber> grabber_ = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  const ComPtr<IAudioReader> reader_ = As<IAudioReader>(grabber_);
};

TEST_F(Grabber, AnswersForALiveSourceAndReadsMoreOrLessThanADeviceBuffer) {
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(reader_->GetFormat(&rate, &channels), S_OK);
  EXPECT_TRUE(rate == 44100 && channels == 2);
  __int64 count = 77;
  EXPECT_EQ(reader_->GetSampleCount(&count), E_NOTIMPL);
  for (const SHORT bits : {8, 16, 32}) {
    ASSERT_EQ(grabber_->SetFormat(44100, 2, bits), S_OK);
    ASSERT_EQ(reader_->OpenDevice(), S_OK) << bits;
    // Also none, and more than all buffers hold.
    for (const std::size_t frames : {0, 1, 40'000, 100}) {
      const Floats block(2 * frames, 9.0F);
      ASSERT_EQ(reader_->ReadAudio(-1, block), S_OK);
      // Silence, at 8 bits the code above the middle.
      for (const float sample : block.values()) ASSERT_NEAR(sample, 0.0F, 0.01);
    }
    EXPECT_EQ(reader_->CloseDevice(), S_OK);
    EXPECT_EQ(reader_->CloseDevice(), S_OK);
    // Samples that were not read are still there, and then there is nothing to wait for.
    int reads = 0;
    while (reader_->ReadAudio(0, Floats(2)) == S_OK) ++reads;
    EXPECT_GT(reads, 0);
  }
}

TEST_F(Grabber, ClosingEndsTheWaitOfEveryReaderAndReadsBeforeOpeningFail) {
  EXPECT_EQ(reader_->ReadAudio(0, Floats(2)), E_FAIL);
  ASSERT_EQ(reader_->OpenDevice(), S_OK);
  std::vector<std::thread> waiting;
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  for (int i = 0; i < 2; ++i) {
    waiting.emplace_back([&] {
      const Floats minute(2 * 44100 * 60);
      ++begun;
      ended += reader_->ReadAudio(0, minute) == E_FAIL ? 1 : 0;
    });
  }
  WaitUntil([&] { return begun == 2; });
  EXPECT_EQ(reader_->CloseDevice(), S_OK);
  for (auto& thread : waiting) thread.join();
  EXPECT_EQ(ended, 2);
  EXPECT_EQ(grabber_->SetFormat(44100, 0, 16), S_OK);
  EXPECT_EQ(reader_->OpenDevice(), E_FAIL);
  EXPECT_EQ(grabber_->SetFormat(44100, 2, 16), S_OK);
  EXPECT_EQ(grabber_->SetDevice(4711), S_OK);
  EXPECT_EQ(reader_->OpenDevice(), E_FAIL);
}

// A writer that keeps the blocks and lets the scrubber run a few passes at a time.
class ScrubWriter final : public TestObject<IAudioWriter> {
 public:
  STDMETHODIMP WriteAudio(SAFEARRAY* block) override {
    {
      const std::lock_guard lock(mutex_);
      const auto* const samples = static_cast<float*>(block->pvData);
      blocks_.emplace_back(samples, samples + block->rgsabound[0].cElements);
    }
    if (on_write) on_write();
    Sleep(5);
    return result;
  }
  STDMETHODIMP OpenDevice() override { return ++opened, S_OK; }
  STDMETHODIMP CloseDevice() override { return ++closed, S_OK; }
  STDMETHODIMP SetFormat(LONG, SHORT) override { return ADD_FAILURE(), S_OK; }
  STDMETHODIMP QueryIsReady(LONG*) override { return S_OK; }
  std::vector<std::vector<float>> Blocks() {
    const std::lock_guard lock(mutex_);
    return blocks_;
  }
  void Await(std::size_t count) {
    WaitUntil([&] { return Blocks().size() >= count; });
  }
  std::atomic<int> opened{0};
  std::atomic<int> closed{0};
  std::atomic<HRESULT> result{S_OK};
  // Runs on the scrubber's thread.
  std::function<void()> on_write;

 private:
  std::mutex mutex_;
  std::vector<std::vector<float>> blocks_;
};

class Scrubber : public ::testing::Test {
 protected:
  HRESULT Start(LONG frames, SHORT channels, LONG rate = 44100) {
    return scrubber_->Start(&writer_, frames, rate, channels);
  }
  ScrubWriter writer_;
  ComPtr<IAudioScrubber> scrubber_ = Create<IAudioScrubber>(CLSID_CAudioScrubber);
};

TEST_F(Scrubber, PlaysSilenceFirstAndThenTheBlockUnderTheCursorCrossfaded) {
  ASSERT_EQ(Start(9, 2), S_OK);
  EXPECT_EQ(Start(9, 2), E_FAIL);
  writer_.Await(3);
  std::vector<float> cursor(16);
  for (std::size_t i = 0; i < cursor.size(); ++i) cursor[i] = static_cast<float>(i + 1);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(15)), E_INVALIDARG);
  ASSERT_EQ(scrubber_->WriteBlock(Floats(cursor)), S_OK);
  writer_.Await(writer_.Blocks().size() + 5);
  ASSERT_EQ(scrubber_->Stop(), S_OK);
  EXPECT_TRUE(writer_.opened == 1 && writer_.closed == 1);

  const auto blocks = writer_.Blocks();
  const std::vector<float> silence(8);
  ASSERT_EQ(blocks[0], silence);
  std::size_t fade = 0;
  while (blocks[fade] == silence) ++fade;
  const auto w = ScrubWindow(8);
  for (std::size_t i = 0; i < 8; ++i) {
    const float faded_in = cursor[i] * w[i / 2];
    EXPECT_FLOAT_EQ(blocks[fade][i], faded_in);
    EXPECT_FLOAT_EQ(blocks[fade + 1][i], faded_in + cursor[i + 8] * w[i / 2 + 4]);
  }
  EXPECT_EQ(blocks[fade + 2], blocks[fade + 1]);
  // The writer is kept after Stop, and released with the scrubber.
  EXPECT_EQ(writer_.Held(), 1);
  scrubber_.Reset();
  EXPECT_EQ(writer_.Held(), 0);
}

TEST_F(Scrubber, WriterMayCallTheScrubberThatCallsItAndStopIt) {
  std::atomic<int> calls{0};
  writer_.on_write = [&] {
    if (calls++ > 0) return;
    EXPECT_EQ(scrubber_->WriteBlock(Floats(4)), S_OK);
    EXPECT_EQ(scrubber_->Stop(), S_OK);
  };
  for (int round = 1; round <= 5; ++round) {
    // Stop of the writer's own does not wait for the call that it is made from.
    WaitUntil([&] { return Start(2, 2) == S_OK; });
    WaitUntil([&] { return calls > 0; });
    EXPECT_EQ(scrubber_->Stop(), S_OK);
    WaitUntil([&] { return writer_.closed == round; });
    calls = 0;
  }
}

TEST_F(Scrubber, RefusesWhatItCannotPlayAndSurvivesAWriterThatFails) {
  for (const SHORT channels : {0, -1}) EXPECT_EQ(Start(1024, channels), E_INVALIDARG);
  EXPECT_EQ(Start(-1, 2), E_INVALIDARG);
  // More than there can be: refused before anything of that size is made.
  EXPECT_EQ(Start(0x7FFFFFFF, 32767, 0x7FFFFFFF), E_INVALIDARG);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(2048)), E_FAIL);
  EXPECT_EQ(scrubber_->Stop(), S_OK);
  EXPECT_EQ(writer_.opened, 0);

  // Blocks of nothing.
  ASSERT_EQ(Start(1, 2), S_OK);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(0)), S_OK);
  writer_.Await(1);
  EXPECT_EQ(scrubber_->Stop(), S_OK);
  EXPECT_EQ(writer_.Blocks()[0].size(), 0U);
  const std::size_t before = writer_.Blocks().size();

  writer_.result = E_FAIL;
  ASSERT_EQ(Start(1025, 1), S_OK);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(1023)), E_INVALIDARG);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(1024)), S_OK);
  writer_.Await(before + 2);
  EXPECT_EQ(writer_.Blocks()[before].size(), 512U);
  scrubber_.Reset();  // running: stops, closes the writer and releases it
  EXPECT_EQ(writer_.closed, 2);
  EXPECT_EQ(writer_.Held(), 0);
}

// Every other time the last release ends the use.
void PlayRecordAndScrub(bool stops) {
  const Floats block(2 * 4410, 0.1F);
  const Player player(44100, 2, 16, 100);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  std::thread producer([&] {
    while (SUCCEEDED(player->WriteAudio(block))) {
    }
  });
  const auto reader = As<IAudioReader>(Create<IAudioGrabber>(CLSID_CAudioGrabber));
  ASSERT_EQ(reader->OpenDevice(), S_OK);
  EXPECT_EQ(reader->ReadAudio(0, Floats(2 * 100)), S_OK);
  const auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
  ASSERT_EQ(scrubber->Start(Player(44100, 2, 16, 100).writer.Get(), 4410, 44100, 2), S_OK);
  EXPECT_EQ(scrubber->WriteBlock(block), S_OK);
  player.playback->Break();
  producer.join();
  if (!stops) return;
  player->CloseDevice();
  reader->CloseDevice();
  scrubber->Stop();
}

// TESSALY_DEVICE_CYCLES names another number of cycles, for a soak.
TEST(Cycles, LeaveNoThreadOrHandle) {
  const char* const named = std::getenv("TESSALY_DEVICE_CYCLES");
  const unsigned cycles = named == nullptr ? 60 : static_cast<unsigned>(std::atoi(named));
  // The system's own threads and handles for the devices come with the first use, and stay.
  for (int i = 0; i < 10; ++i) PlayRecordAndScrub(i % 2 == 0);
  const unsigned threads = CountThreads();
  const unsigned handles = CountHandles();
  for (unsigned i = 0; i < cycles && !HasFailure(); ++i) PlayRecordAndScrub(i % 2 == 0);
  // The system makes some handles late, but not one in every third cycle.
  AwaitAtMost(CountThreads, threads + cycles / 3, "threads");
  AwaitAtMost(CountHandles, handles + cycles / 3, "handles");
}

}  // namespace
}  // namespace marlinda::testing
