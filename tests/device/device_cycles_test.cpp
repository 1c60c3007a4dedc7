// Starts and stops the devices over and over and counts what is left. TESSALY_DEVICE_CYCLES names
// another number of cycles, for a soak.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

ComPtr<IAudioWriter> Speaker() {
  const auto playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  playback->SetFormat(44100, 2, 16);
  playback->SetBufferLength(100);
  return As<IAudioWriter>(playback);
}

// Every other time the last release ends the use.
void PlayRecordAndScrub(bool stops) {
  const Floats block(2 * 4410, 0.1F);
  const auto writer = Speaker();
  ASSERT_EQ(writer->OpenDevice(), S_OK);
  std::thread producer([&] {
    while (SUCCEEDED(writer->WriteAudio(block))) {
    }
  });
  const auto reader = As<IAudioReader>(Create<IAudioGrabber>(CLSID_CAudioGrabber));
  ASSERT_EQ(reader->OpenDevice(), S_OK);
  EXPECT_EQ(reader->ReadAudio(0, Floats(2 * 100)), S_OK);
  const auto scrubber = Create<IAudioScrubber>(CLSID_CAudioScrubber);
  ASSERT_EQ(scrubber->Start(Speaker().Get(), 4410, 44100, 2), S_OK);
  EXPECT_EQ(scrubber->WriteBlock(block), S_OK);
  As<IAudioPlayback>(writer)->Break();
  producer.join();
  if (!stops) return;
  writer->CloseDevice();
  reader->CloseDevice();
  scrubber->Stop();
}

TEST(Cycles, LeaveNoThreadOrHandle) {
  const char* named = std::getenv("TESSALY_DEVICE_CYCLES");
  const unsigned cycles = named == nullptr ? 60 : static_cast<unsigned>(std::atoi(named));
  // The system's own threads and handles for the devices come with the first use, and stay.
  for (int i = 0; i < 10; ++i) PlayRecordAndScrub(i % 2 == 0);
  const unsigned threads = CountThreads();
  const unsigned handles = CountHandles();
  for (unsigned i = 0; i < cycles && !HasFailure(); ++i) PlayRecordAndScrub(i % 2 == 0);
  // The system makes some handles late, but not one in every third cycle.
  EXPECT_LT(CountThreads(), threads + cycles / 3);
  EXPECT_LT(CountHandles(), handles + cycles / 3);
}

}  // namespace
}  // namespace marlinda::testing
