// Starts and stops the devices over and over and counts what is left. TESSALY_DEVICE_CYCLES names
// another number of cycles, for a soak.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

int Cycles(int usual) {
  const char* named = std::getenv("TESSALY_DEVICE_CYCLES");
  return named == nullptr ? usual : std::atoi(named);
}

// The system makes a handle for some of its locks when two threads first meet there, whenever that
// is. A leak in no more than every third cycle is many times as much.
constexpr unsigned kLateHandles = 8;
// What the heap grows by when more threads than ever before are in it at once.
constexpr std::size_t kLateBytes = 1 << 20;

std::ptrdiff_t CountTemporaryFiles() {
  return std::distance(std::filesystem::directory_iterator(std::filesystem::temp_directory_path()),
                       std::filesystem::directory_iterator());
}

struct Counts {
  unsigned threads = CountThreads();
  unsigned handles = CountHandles();
  DWORD gdi_objects = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
  DWORD user_objects = GetGuiResources(GetCurrentProcess(), GR_USEROBJECTS);
  std::ptrdiff_t files = CountTemporaryFiles();
  std::size_t bytes = CountPrivateBytes();
  bool Within(const Counts& other) const {
    return threads <= other.threads && handles <= other.handles + kLateHandles &&
           gdi_objects <= other.gdi_objects && user_objects <= other.user_objects &&
           files <= other.files && bytes <= other.bytes + kLateBytes;
  }
};

std::ostream& operator<<(std::ostream& out, const Counts& counts) {
  return out << counts.threads << " threads, " << counts.handles << " handles, "
             << counts.gdi_objects << " GDI and " << counts.user_objects << " USER objects, "
             << counts.files << " files, " << counts.bytes << " bytes";
}

// A thread that has ended may stay in the system's list for a moment.
Counts SettledCounts(const Counts& before) {
  Counts now;
  for (int tick = 0; tick < 500 && !now.Within(before); ++tick) {
    Sleep(10);
    now = Counts();
  }
  return now;
}

void ExpectNothingLeft(int cycles, const std::function<void(int)>& cycle) {
  // The system's own threads and handles for the devices come with the first use, and stay.
  for (int i = 0; i < std::clamp(cycles / 20, 10, 100); ++i) cycle(i);
  const Counts before;
  for (int i = 0; i < cycles && !::testing::Test::HasFailure(); ++i) cycle(i);
  const Counts after = SettledCounts(before);
  EXPECT_TRUE(after.Within(before)) << before << " became " << after;
  std::cout << cycles << " cycles: " << before << "; then " << after << std::endl;
}

ComPtr<IAudioWriter> StereoSpeaker() {
  auto playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  playback->SetFormat(44100, 2, 16);
  playback->SetBufferLength(100);
  return As<IAudioWriter>(playback);
}

// Holds a hundred handles, twenty threads, a file and twice the memory that may come late while it
// looks.
Counts CountsWhileHoldingMore() {
  const TemporaryFolder folder;
  const std::unique_ptr<void, decltype(&std::free)> memory(std::malloc(2 * kLateBytes), std::free);
  std::vector<KernelHandle> events;
  for (int i = 0; i < 100; ++i) events.emplace_back(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::vector<std::thread> waiting;
  for (int i = 0; i < 20; ++i) {
    waiting.emplace_back([&] { WaitForSingleObject(events[0].get(), INFINITE); });
  }
  const Counts during;
  SetEvent(events[0].get());
  for (auto& thread : waiting) thread.join();
  return during;
}

TEST(Cycles, CountsSeeWhatIsHeldAndThatItIsGone) {
  CountsWhileHoldingMore();  // what the first use brings, stays
  const Counts before;
  const Counts during = CountsWhileHoldingMore();
  EXPECT_GE(during.threads, before.threads + 20);
  EXPECT_GE(during.handles, before.handles + 100);
  EXPECT_EQ(during.files, before.files + 1);
  EXPECT_GT(during.bytes, before.bytes + kLateBytes);
  EXPECT_TRUE(SettledCounts(before).Within(before));
}

TEST(Cycles, PlayingLeavesNoThreadOrHandle) {
  ExpectNothingLeft(Cycles(200), [](int i) {
    auto writer = StereoSpeaker();
    ASSERT_EQ(writer->OpenDevice(), S_OK);
    Floats block(2 * 2205, 0.1F);
    if (i % 3 == 0) {
      // A producer that is held back when the stop comes.
      std::thread producer([&] {
        while (SUCCEEDED(writer->WriteAudio(block))) {
        }
      });
      As<IAudioPlayback>(writer)->Break();
      writer->CloseDevice();
      producer.join();
    } else {
      for (int n = 0; n < 2; ++n) ASSERT_EQ(writer->WriteAudio(block), S_OK);
      // Every other time the last release closes the device.
      if (i % 3 == 1) writer->CloseDevice();
    }
  });
}

TEST(Cycles, RecordingLeavesNoThreadOrHandle) {
  ExpectNothingLeft(Cycles(200), [](int i) {
    auto reader = As<IAudioReader>(Create<IAudioGrabber>(CLSID_CAudioGrabber));
    ASSERT_EQ(reader->OpenDevice(), S_OK);
    if (i % 3 == 0) {
      ASSERT_EQ(reader->ReadAudio(0, Floats(2 * 100)), S_OK);
    } else if (i % 3 == 1) {
      std::thread waiting([&] { reader->ReadAudio(0, Floats(2 * 44100 * 60)); });
      reader->CloseDevice();
      waiting.join();
    }
    // Otherwise the last release closes the device.
  });
}

TEST(Cycles, ScrubbingLeavesNoThreadOrHandle) {
  // Each stop takes a tenth of a second, so that several are under way at once.
  constexpr int kAtOnce = 8;
  ExpectNothingLeft(Cycles(200) / kAtOnce, [](int) {
    std::vector<ComPtr<IAudioScrubber>> scrubbers;
    for (int i = 0; i < kAtOnce; ++i) {
      scrubbers.push_back(Create<IAudioScrubber>(CLSID_CAudioScrubber));
      ASSERT_EQ(scrubbers[i]->Start(StereoSpeaker().Get(), 4410, 44100, 2), S_OK);
      ASSERT_EQ(scrubbers[i]->WriteBlock(Floats(2 * 4410, 0.1F)), S_OK);
    }
    std::vector<std::thread> enders;
    for (int i = 0; i < kAtOnce; ++i) {
      enders.emplace_back([&scrubber = scrubbers[i], i] {
        if (i % 2 == 0) scrubber->Stop();
        scrubber.Reset();
      });
    }
    for (auto& ender : enders) ender.join();
  });
}

}  // namespace
}  // namespace marlinda::testing
