// Tests playback, recording and scrubbing on the real wave devices of a private sound server, whose
// microphone records its speaker. Waits have no limit, because CTest ends a test that hangs.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <thread>

#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

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
  __int64 Position() const {
    __int64 position = -1;
    EXPECT_EQ(playback->GetPlaybackPos(&position), S_OK);
    return position;
  }
  const ComPtr<IAudioPlayback> playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  const ComPtr<IAudioWriter> writer = As<IAudioWriter>(playback);
};

TEST(Playback, WriteAudioWaitsWhileTheBufferIsFullAndPositionsCountFromTheOffset) {
  const Player player(44100, 2, 16);
  EXPECT_EQ(player.playback->SetPosOffset(1000), S_OK);
  __int64 last = player.Position();
  EXPECT_EQ(last, 1000);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  // The blocks hold 0, 0.5 and 3.5 frames.
  for (const std::size_t odd : {0, 1, 7}) EXPECT_EQ(player->WriteAudio(Floats(odd)), S_OK);
  const auto start = std::chrono::steady_clock::now();
  const auto passed = [&] { return std::chrono::steady_clock::now() - start; };
  // WriteAudio waits while more than 1 s is queued, so 40 blocks of 100 ms take almost 3 s.
  for (int i = 0; i < 40; ++i) ASSERT_EQ(player->WriteAudio(Floats(2 * 4410)), S_OK);
  EXPECT_GT(passed(), std::chrono::seconds(2));
  while (!player.Ready()) {
    const __int64 position = player.Position();
    ASSERT_GE(position, std::exchange(last, position));
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
    std::vector<std::jthread> producers;
    std::atomic<int> written{0};
    for (int i = 0; i < 3; ++i) {
      producers.emplace_back([&] {
        HRESULT hr = S_OK;
        while ((hr = player->WriteAudio(Floats(2 * 22050))) == S_OK) ++written;
        EXPECT_EQ(hr, E_FAIL);
      });
    }
    WaitUntil([&] { return written >= 3; });
    EXPECT_EQ(broken ? player.playback->Break() : player->CloseDevice(), S_OK);
    producers.clear();
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
  // This block lasts longer than CTest's timeout, so the test passes only if Break discards it.
  ASSERT_EQ(player->WriteAudio(Floats(8000 * 1000, 0.5F)), S_OK);
  WaitUntil(heard);
  EXPECT_EQ(player.playback->Break(), S_OK);
  // Waits for 2 s of silence, because an underrun also causes short gaps.
  for (int silent = 0; silent < 20;) silent = heard() ? 0 : silent + 1;
}

TEST(Playback, OutputLevelsAreTheSignedPeaksOfTheBlockPlayedLast) {
  const Player player(48000, 6, 32);
  // Opening again closes the open device.
  ASSERT_EQ(player->OpenDevice(), S_OK);
  ASSERT_EQ(player->OpenDevice(), S_OK);
  const std::vector<float> frames = {0.5F,  -0.25F, 0, 0.125F, 0, 0.75F,
                                     -1.0F, -0.75F, 0, 0.25F,  0, 0.5F};
  ASSERT_EQ(player->WriteAudio(Floats(frames)), S_OK);
  WaitUntil([&] { return player.Ready(); });
  const float levels[] = {0.5F, 0, 0, 0.25F, 0, 0.75F};
  float level = -1;
  for (SHORT channel = 0; channel < 6; ++channel) {
    EXPECT_EQ(player.playback->GetOutputLevel(channel, &level), S_OK);
    EXPECT_EQ(level, levels[channel]) << channel;
  }
  EXPECT_EQ(player.playback->GetOutputLevel(6, &level), E_INVALIDARG);
}

class Grabber : public ::testing::Test {
 protected:
  const ComPtr<IAudioGrabber> grabber_ = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  const ComPtr<IAudioReader> reader_ = As<IAudioReader>(grabber_);
};

TEST_F(Grabber, ReadsBlocksOfAnySizeAndReturnsQueuedSamplesAfterClosing) {
  LONG rate = 0;
  SHORT channels = 0;
  EXPECT_EQ(reader_->GetFormat(&rate, &channels), S_OK);
  EXPECT_TRUE(rate == 44100 && channels == 2);
  // device_test.py tests the other widths.
  ASSERT_EQ(grabber_->SetFormat(44100, 2, 8), S_OK);
  ASSERT_EQ(reader_->OpenDevice(), S_OK);
  // The reads include an empty block and a block larger than all buffers together.
  for (const std::size_t frames : {0, 1, 40'000, 100}) {
    const Floats block(2 * frames, 9.0F);
    ASSERT_EQ(reader_->ReadAudio(-1, block), S_OK);
    // The 8-bit code for silence is just above the middle.
    for (const float sample : block.values()) ASSERT_NEAR(sample, 0.0F, 0.01);
  }
  EXPECT_EQ(reader_->CloseDevice(), S_OK);
  // The unread samples can still be read. After them, ReadAudio fails without waiting.
  int reads = 0;
  while (reader_->ReadAudio(0, Floats(2)) == S_OK) ++reads;
  EXPECT_GT(reads, 0);
}

TEST_F(Grabber, ClosingEndsTheWaitOfEveryReaderAndReadsBeforeOpeningFail) {
  EXPECT_EQ(reader_->ReadAudio(0, Floats(2)), E_FAIL);
  ASSERT_EQ(reader_->OpenDevice(), S_OK);
  std::vector<std::jthread> waiting;
  std::atomic<int> begun{0};
  for (int i = 0; i < 2; ++i) {
    waiting.emplace_back([&] {
      const Floats minute(2 * 44100 * 60);
      ++begun;
      EXPECT_EQ(reader_->ReadAudio(0, minute), E_FAIL);
    });
  }
  WaitUntil([&] { return begun == 2; });
  EXPECT_EQ(reader_->CloseDevice(), S_OK);
  waiting.clear();
  for (const auto& [channels, device] : {std::pair<SHORT, LONG>{0, 0}, {2, 4711}}) {
    EXPECT_EQ(grabber_->SetFormat(44100, channels, 16), S_OK);
    EXPECT_EQ(grabber_->SetDevice(device), S_OK);
    EXPECT_EQ(reader_->OpenDevice(), E_FAIL);
  }
}

class Scrubber : public ::testing::Test {
 protected:
  // Slows each WriteAudio down, as a device would.
  Scrubber() {
    writer_->on_write = [](SAFEARRAY*) { Sleep(5); };
  }
  HRESULT Start(LONG frames, SHORT channels) {
    return scrubber_->Start(writer_.Get(), frames, 44100, channels);
  }
  void AwaitMore(std::size_t count) {
    WaitUntil([&, before = writer_->blocks.load()] { return writer_->blocks >= before + count; });
  }
  const ComPtr<RecordingWriter> writer_ = MakeObject<RecordingWriter>();
  ComPtr<IAudioScrubber> scrubber_ = Create<IAudioScrubber>(CLSID_CAudioScrubber);
};

TEST_F(Scrubber, PlaysSilenceAndThenCrossfadesToTheWrittenBlock) {
  ASSERT_EQ(Start(9, 2), S_OK);
  EXPECT_EQ(Start(9, 2), E_FAIL);
  AwaitMore(3);
  std::vector<float> cursor(16);
  std::iota(cursor.begin(), cursor.end(), 1.0F);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(15)), E_INVALIDARG);
  ASSERT_EQ(scrubber_->WriteBlock(Floats(cursor)), S_OK);
  AwaitMore(5);
  // During a silent block, the only sound is the second half of the previous block, which fades
  // out.
  ASSERT_EQ(scrubber_->WriteBlock(Floats(16)), S_OK);
  AwaitMore(5);
  ASSERT_EQ(scrubber_->Stop(), S_OK);
  EXPECT_THAT(writer_->calls, ElementsAre("OpenDevice", "WriteAudio", "CloseDevice"));
  EXPECT_EQ(writer_->Held(), 1) << "kept until the scrubber ends";

  // The crossfade's window is a sine, so that the power stays constant.
  const auto w = [](std::size_t i) { return std::sin(3.14159265F * static_cast<float>(i) / 8); };
  const std::vector<float>& played = writer_->samples;
  const auto sounds = [](float sample) { return sample != 0; };
  const auto fade = (std::ranges::find_if(played, sounds) - played.begin()) / 8 * 8;
  const auto end = std::ranges::find_if(played.rbegin(), played.rend(), sounds).base();
  const auto stop = (end - played.begin() + 7) / 8 * 8 - 8;
  EXPECT_GE(fade, 8);
  ASSERT_GT(stop, fade + 8);
  for (std::ptrdiff_t at = fade; at <= stop; at += 8) {
    for (std::size_t i = 0; i < 8; ++i) {
      const float faded_in = at == stop ? 0 : cursor[i] * w(i / 2);
      const float faded_out = at == fade ? 0 : cursor[i + 8] * w(i / 2 + 4);
      EXPECT_NEAR(played[static_cast<std::size_t>(at) + i], faded_in + faded_out, 1e-4F) << at;
    }
  }
}

TEST_F(Scrubber, TheWriterMayCallAndStopTheScrubberInsideWriteAudio) {
  std::atomic<int> calls{0};
  writer_->on_write = [&](SAFEARRAY*) {
    if (calls++ > 0) return;
    EXPECT_EQ(scrubber_->WriteBlock(Floats(4)), S_OK);
    EXPECT_EQ(scrubber_->Stop(), S_OK);
  };
  for (int round = 1; round <= 5; ++round) {
    writer_->closed = false;
    // Start fails while the previous thread runs. A Stop that is called inside WriteAudio does not
    // wait for that thread.
    WaitUntil([&] { return Start(2, 2) == S_OK; });
    WaitUntil([&] { return calls > 0; });
    EXPECT_EQ(scrubber_->Stop(), S_OK);
    WaitUntil([&] { return writer_->closed.load(); });
    calls = 0;
  }
}

TEST_F(Scrubber, RefusesWhatItCannotPlayAndSurvivesAWriterThatFails) {
  EXPECT_EQ(Start(1024, 0), E_INVALIDARG);
  EXPECT_EQ(Start(-1, 2), E_INVALIDARG);
  // Start refuses this size before it allocates memory.
  EXPECT_EQ(Start(0x7FFFFFFF, 32767), E_INVALIDARG);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(2048)), E_FAIL);
  EXPECT_EQ(scrubber_->Stop(), S_OK);
  EXPECT_TRUE(writer_->calls.empty());

  writer_->result = E_FAIL;
  ASSERT_EQ(Start(1025, 1), S_OK);
  EXPECT_EQ(scrubber_->WriteBlock(Floats(1024)), S_OK);
  AwaitMore(2);
  scrubber_.Reset();  // the last release ends scrubbing and closes and releases the writer
  EXPECT_EQ(writer_->block_sizes.back(), 512U);
  EXPECT_TRUE(writer_->closed);
  EXPECT_EQ(writer_->Held(), 0);
}

// If `stops` is false, releases the objects without closing or stopping them.
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

// TESSALY_DEVICE_CYCLES sets the number of cycles for a soak run.
TEST(Cycles, LeaveNoThreadOrHandle) {
  const char* const named = std::getenv("TESSALY_DEVICE_CYCLES");
  const unsigned cycles = named == nullptr ? 30 : static_cast<unsigned>(std::atoi(named));
  // The first cycles create threads and handles that the system keeps.
  for (int i = 0; i < 10; ++i) PlayRecordAndScrub(i % 2 == 0);
  const LeakWatch watch;
  for (unsigned i = 0; i < cycles && !HasFailure(); ++i) PlayRecordAndScrub(i % 2 == 0);
  // The system creates some handles late, but fewer than one per three cycles.
  watch.AwaitAtMost(cycles / 3, cycles / 3);
}

}  // namespace
}  // namespace marlinda::testing
