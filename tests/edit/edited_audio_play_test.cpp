// Playing and scrubbing a document on the real wave devices of a private sound server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>

#include "tests/edit/document.h"
#include "tests/edit/event_sink.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Lt;

constexpr LONG kRate = 44100;
constexpr __int64 kHour = 3600LL * kRate;
constexpr ULONG kAll = 0xFFFFFFFF;

// CTest ends a wait that never ends.
void WaitUntil(const std::function<bool()>& condition) {
  while (!condition()) Sleep(10);
}

class EditedAudioPlay : public ::testing::Test {
 protected:
  EditedAudioPlay() { document_.Append(source_, 0, kHour); }

  bool Playing(__int64* position = nullptr) {
    VARIANT_BOOL playing = 77;
    __int64 ignored = 0;
    EXPECT_EQ(document_->GetPlayStatus(&playing, position != nullptr ? position : &ignored), S_OK);
    EXPECT_TRUE(playing == VARIANT_TRUE || playing == VARIANT_FALSE);
    return playing == VARIANT_TRUE;
  }
  void WaitForEnd() {
    WaitUntil([&] { return !Playing(); });
  }
  // Waits until two more blocks were read.
  void WaitForReads() {
    const int begun = reads_;
    WaitUntil([&] { return reads_ > begun + 1; });
  }
  DWORD Connect() {
    DWORD cookie = 0;
    EXPECT_EQ(Point()->Advise(&sink_, &cookie), S_OK);
    return cookie;
  }
  void Disconnect(DWORD cookie) { EXPECT_EQ(Point()->Unadvise(cookie), S_OK); }
  ComPtr<IConnectionPoint> Point() {
    ComPtr<IConnectionPoint> point;
    As<IConnectionPointContainer>(document_.edit)
        ->FindConnectionPoint(DIID__IEAUpdateEvents, point.GetAddressOf());
    return point;
  }
  ComPtr<RampSource> CountedSource(char name, CallLog* log) {
    auto source = RampSource::Make(name, 2, log, kRate);
    source->on_read = [this](SAFEARRAY*) { ++reads_; };
    return source;
  }

  std::atomic<int> reads_{0};
  // To be looked at while no thread runs.
  CallLog calls_;
  CallLog events_;
  Sink sink_{"s", DIID__IEAUpdateEvents, &events_};
  const ComPtr<RampSource> source_ = CountedSource('A', &calls_);
  Document document_;
};

TEST_F(EditedAudioPlay, PlaysASectionToItsEndInBlocksOfFortyMilliseconds) {
  EXPECT_FALSE(Playing());
  ASSERT_EQ(document_->Play(1000, 1000 + 17640 + 41, kAll, VARIANT_FALSE), S_OK);
  __int64 position = 0;
  __int64 last = 1000;
  while (Playing(&position)) {
    // The whole section once more is its first frame.
    EXPECT_TRUE(position >= last || position == 1000) << position << " after " << last;
    EXPECT_LT(position, 1000 + 17640 + 41);
    last = std::max(last, position);
    Sleep(20);
  }
  EXPECT_GT(last, 1000);
  EXPECT_EQ(position, 0);
  CallLog expected = {"A.GetFormat", "A.OpenDevice"};
  for (int block = 0; block < 10; ++block) {
    expected.push_back("A.ReadAudio(" + std::to_string(1000 + block * 1764) + ", 3528)");
  }
  expected.insert(expected.end(), {"A.ReadAudio(18640, 82)", "A.CloseDevice"});
  EXPECT_EQ(calls_, expected);
  EXPECT_EQ(document_->StopPlay(), S_OK);
}

TEST_F(EditedAudioPlay, ALoopOfTenFramesReportsPositionsInsideItself) {
  ASSERT_EQ(document_->Play(500, 510, kAll, VARIANT_TRUE), S_OK);
  WaitForReads();
  for (int i = 0; i < 50; ++i) {
    __int64 position = 0;
    ASSERT_TRUE(Playing(&position));
    ASSERT_THAT(position, AllOf(Ge(500), Lt(510)));
    Sleep(10);
  }
  EXPECT_EQ(document_->StopPlay(), S_OK);
  EXPECT_FALSE(Playing());
  ASSERT_GT(calls_.size(), 10U);
  for (std::size_t i = 2; i + 1 < calls_.size(); ++i) EXPECT_EQ(calls_[i], "A.ReadAudio(500, 20)");
}

TEST_F(EditedAudioPlay, PlayFiresAlsoWhenItStartsNothing) {
  const DWORD cookie = Connect();
  EXPECT_EQ(document_->Play(100, 100, kAll, VARIANT_TRUE), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(document_->Play(100, 50, kAll, VARIANT_FALSE), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_THAT(calls_, ElementsAre("A.GetFormat"));
  ASSERT_EQ(document_->Play(500, 510, kAll, VARIANT_TRUE), S_OK);
  WaitForReads();
  EXPECT_EQ(document_->Play(90'000, 95'000, 1, VARIANT_FALSE), S_OK);
  WaitForReads();
  __int64 position = 0;
  EXPECT_TRUE(Playing(&position));
  EXPECT_THAT(position, AllOf(Ge(500), Lt(510)));
  EXPECT_EQ(document_->StopPlay(), S_OK);
  EXPECT_THAT(events_, ElementsAre("s1", "s1", "s1", "s1"));
  Disconnect(cookie);
}

TEST_F(EditedAudioPlay, AnotherSectionIsOnlyForWhatIsLooped) {
  const DWORD cookie = Connect();
  EXPECT_EQ(document_->ModifyPlaySection(100, 200), S_OK);
  ASSERT_EQ(document_->Play(500, 510, kAll, VARIANT_TRUE), S_OK);
  WaitForReads();
  EXPECT_EQ(document_->ModifyPlaySection(2000, 2100), S_OK);
  WaitForReads();
  __int64 position = 0;
  EXPECT_TRUE(Playing(&position));
  EXPECT_THAT(position, AllOf(Ge(2000), Lt(2100)));
  // At least one frame.
  EXPECT_EQ(document_->ModifyPlaySection(300, 300), S_OK);
  EXPECT_TRUE(Playing(&position));
  EXPECT_EQ(position, 300);
  EXPECT_EQ(document_->ModifyPlaySection(700, 20), S_OK);
  EXPECT_TRUE(Playing(&position));
  EXPECT_EQ(position, 700);
  EXPECT_EQ(document_->StopPlay(), S_OK);

  ASSERT_EQ(document_->Play(0, kHour, kAll, VARIANT_FALSE), S_OK);
  EXPECT_EQ(document_->ModifyPlaySection(kHour - 10, kHour), S_OK);
  EXPECT_TRUE(Playing(&position));
  EXPECT_LT(position, kHour - 10);
  EXPECT_EQ(document_->StopPlay(), S_OK);
  EXPECT_EQ(document_->ModifyPlaySection(100, 200), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_THAT(events_, ElementsAre("s1", "s1", "s1", "s1", "s1"));
  Disconnect(cookie);
}

TEST_F(EditedAudioPlay, StopWakesAThreadThatWaitsForTheDevice) {
  ASSERT_EQ(document_->Play(0, kHour, kAll, VARIANT_FALSE), S_OK);
  // The device holds a second, which is 25 blocks: the thread waits for room.
  WaitUntil([&] { return reads_ > 27; });
  EXPECT_EQ(document_->StopPlay(), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
  EXPECT_EQ(document_->StopPlay(), S_OK);
}

TEST_F(EditedAudioPlay, MaskLeavesTheLevelOfTheOtherChannelsAtNothing) {
  float level = -1;
  EXPECT_EQ(document_->GetOutputLevel(0, &level), S_OK);
  EXPECT_EQ(level, 0.0F);
  for (const ULONG mask : {1UL, kAll}) {
    ASSERT_EQ(document_->Play(0, kHour, mask, VARIANT_FALSE), S_OK);
    WaitUntil([&] {
      EXPECT_EQ(document_->GetOutputLevel(0, &level), S_OK);
      return level > 0;
    });
    EXPECT_EQ(document_->GetOutputLevel(1, &level), S_OK);
    EXPECT_EQ(level > 0, mask == kAll);
    EXPECT_EQ(document_->StopPlay(), S_OK);
  }
}

TEST_F(EditedAudioPlay, WhatFailsOnTheThreadEndsThePlayback) {
  source_->read_result = E_ACCESSDENIED;
  EXPECT_EQ(document_->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
  WaitForEnd();
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
  source_->read_result = S_OK;
  source_->open_result = E_ACCESSDENIED;
  EXPECT_EQ(document_->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
  WaitForEnd();
  EXPECT_EQ(calls_.back(), "A.OpenDevice");
  source_->open_result = S_OK;
  EXPECT_EQ(document_->SetPlaybackDevice(4711), S_OK);
  EXPECT_EQ(document_->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
  WaitForEnd();
  EXPECT_EQ(document_->SetPlaybackDevice(-1), S_OK);
  // None of it stands in the way of the next one.
  EXPECT_EQ(document_->Play(0, 4410, kAll, VARIANT_FALSE), S_OK);
  WaitForEnd();
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, FormatsThatAreNoneDoNoHarm) {
  struct Format {
    LONG rate;
    SHORT channels;
    SHORT bits;
  };
  for (const Format format :
       {Format{0, 2, 16}, Format{44100, 0, 16}, Format{-44100, 2, 16}, Format{44100, -2, 16},
        Format{1, 1, 16}, Format{19, 1, 16}, Format{2147483647, 32767, 32}, Format{44100, 2, 0}}) {
    Document odd;
    odd.Append(source_, 0, kHour);
    EXPECT_EQ(odd->SetFormat(format.rate, format.channels, format.bits), S_OK);
    EXPECT_EQ(odd->Play(0, 10, 1, VARIANT_FALSE), S_OK);
    EXPECT_EQ(odd->StopPlay(), S_OK);
    const auto scrub = As<IScrubSupport>(odd.edit);
    EXPECT_EQ(scrub->StartScrub(), S_OK);
    EXPECT_EQ(scrub->SetScrubPosition(100), S_OK);
    EXPECT_EQ(scrub->StopScrub(), S_OK);
  }
  Document fresh;
  EXPECT_EQ(fresh->Play(0, 10, 1, VARIANT_TRUE), S_OK);
  EXPECT_EQ(fresh->StopPlay(), S_OK);
}

TEST_F(EditedAudioPlay, ADocumentThatCannotHaveItsDeviceObjectsEditsAndDoesNotPlay) {
  ComPtr<IClassFactory> documents;
  ASSERT_EQ(CoGetClassObject(CLSID_CEditedAudio, CLSCTX_ALL, nullptr, __uuidof(IClassFactory),
                             reinterpret_cast<void**>(documents.GetAddressOf())),
            S_OK);
  ModuleUnderTest::Revoke();
  ComPtr<IEditedAudio> silent;
  const HRESULT made = documents->CreateInstance(nullptr, __uuidof(IEditedAudio),
                                                 reinterpret_cast<void**>(silent.GetAddressOf()));
  if (FAILED(made)) {
    ModuleUnderTest::Load();
    FAIL() << made;
  }
  const auto scrub = As<IScrubSupport>(silent);
  const HRESULT appended = silent->AppendSegment(source_.Get(), 0, kHour);
  const HRESULT played = silent->Play(0, 4410, kAll, VARIANT_FALSE);
  const HRESULT scrubbed = scrub->StartScrub();
  const HRESULT positioned = scrub->SetScrubPosition(0);
  const HRESULT stopped = scrub->StopScrub();
  float level = 0;
  const HRESULT measured = silent->GetOutputLevel(0, &level);
  VARIANT_BOOL playing = VARIANT_TRUE;
  __int64 position = 0;
  const HRESULT asked = silent->GetPlayStatus(&playing, &position);
  ModuleUnderTest::Load();
  EXPECT_EQ(appended, S_OK);
  EXPECT_EQ(asked, S_OK);
  EXPECT_EQ(played, S_OK);
  EXPECT_TRUE(FAILED(scrubbed));
  EXPECT_EQ(measured, scrubbed);
  EXPECT_EQ(positioned, S_OK);
  EXPECT_EQ(stopped, S_OK);
  EXPECT_EQ(playing, VARIANT_FALSE);
  // What was missing may have come meanwhile.
  EXPECT_EQ(silent->GetOutputLevel(0, &level), S_OK);
  EXPECT_EQ(scrub->StartScrub(), S_OK);
  EXPECT_EQ(scrub->StopScrub(), S_OK);
}

TEST_F(EditedAudioPlay, SinksMayPlayStopAndGiveAnotherSection) {
  const DWORD cookie = Connect();
  // Without end, if the document let it.
  sink_.on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    return document_->Play(500, 510, kAll, VARIANT_TRUE);
  };
  EXPECT_EQ(document_->Play(500, 510, kAll, VARIANT_TRUE), S_OK);
  EXPECT_TRUE(Playing());
  int left = 2;
  sink_.on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    return left-- > 0 ? document_->ModifyPlaySection(1000 * left, 1000 * left + 5) : S_OK;
  };
  EXPECT_EQ(document_->ModifyPlaySection(9000, 9005), S_OK);
  __int64 position = 0;
  EXPECT_TRUE(Playing(&position));
  EXPECT_THAT(position, AllOf(Ge(0), Lt(5)));
  sink_.on_event = [&](DISPPARAMS*, EXCEPINFO*) { return document_->StopPlay(); };
  EXPECT_EQ(document_->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
  EXPECT_FALSE(Playing());
  Disconnect(cookie);
}

TEST_F(EditedAudioPlay, EditingWhilePlayingCorruptsNothing) {
  // Read on two threads, so without a log.
  const auto source = CountedSource('A', nullptr);
  const auto other = RampSource::Make('B', 2);
  document_->Clear();
  document_.Append(source, 0, kHour);
  ASSERT_EQ(document_->Play(0, kHour, 1, VARIANT_TRUE), S_OK);
  WaitForReads();
  for (int i = 0; i < 300; ++i) {
    document_->InsertSegment(0, other.Get(), 0, 100);
    document_->Delete(50, 70'000);
    if (i % 50 == 0) document_->Clear();
    document_->AppendSegment(source.Get(), 0, kHour);
    document_->SetFormat(kRate, static_cast<SHORT>(i % 4), 16);
  }
  EXPECT_EQ(document_->SetFormat(kRate, 2, 16), S_OK);
  EXPECT_EQ(document_->StopPlay(), S_OK);
}

TEST_F(EditedAudioPlay, ASourceMayStopAndAskFromThePlaybackThread) {
  source_->on_read = [&](SAFEARRAY*) {
    if (++reads_ != 3) return;
    EXPECT_TRUE(Playing());
    EXPECT_EQ(document_->ModifyPlaySection(5, 6), S_OK);
    EXPECT_EQ(document_->StopPlay(), S_OK);
  };
  ASSERT_EQ(document_->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
  WaitUntil([&] { return reads_ >= 3; });
  WaitForEnd();
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, TheLastReleaseStopsWhatPlaysAndLetsGoOfEverything) {
  for (const bool looped : {false, true}) {
    auto doomed = Create<IEditedAudio>(CLSID_CEditedAudio);
    doomed->AppendSegment(source_.Get(), 0, kHour);
    ASSERT_EQ(doomed->Play(0, looped ? 100 : kHour, kAll, looped ? VARIANT_TRUE : VARIANT_FALSE),
              S_OK);
    WaitForReads();
    // Nobody else holds it, the thread neither.
    EXPECT_EQ(ReferenceCount(doomed.Get()), 1U);
    doomed.Reset();
    EXPECT_EQ(source_->Held(), 1);
    EXPECT_EQ(calls_.back(), "A.CloseDevice");
  }
}

TEST_F(EditedAudioPlay, TheLastReleaseMayComeOnThePlaybackThread) {
  for (int i = 0; i < 5; ++i) {
    auto doomed = Create<IEditedAudio>(CLSID_CEditedAudio);
    doomed->AppendSegment(source_.Get(), 0, kHour);
    std::atomic<bool> go{false};
    reads_ = 0;
    source_->on_read = [&](SAFEARRAY*) {
      WaitUntil([&] { return go.load(); });
      if (++reads_ == 2) doomed.Reset();
    };
    ASSERT_EQ(doomed->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
    go = true;
    WaitUntil([&] { return source_->Held() == 1; });
    EXPECT_EQ(doomed.Get(), nullptr);
    EXPECT_EQ(calls_.back(), "A.CloseDevice");
  }
}

TEST_F(EditedAudioPlay, ScrubBlocksAreReadAroundThePositionAndNeverBeforeTheStart) {
  const auto scrub = As<IScrubSupport>(document_.edit);
  calls_.clear();
  EXPECT_EQ(scrub->StartScrub(), S_OK);
  EXPECT_EQ(scrub->StartScrub(), S_OK);
  for (const __int64 position : {100'000LL, 2206LL, 2205LL, 0LL, -1LL, 3600LL * kRate}) {
    EXPECT_EQ(scrub->SetScrubPosition(position), S_OK);
  }
  EXPECT_EQ(scrub->StopScrub(), S_OK);
  EXPECT_THAT(
      calls_,
      ElementsAre("A.OpenDevice", "A.ReadAudio(97795, 8820)", "A.ReadAudio(1, 8820)",
                  "A.ReadAudio(0, 8820)", "A.ReadAudio(0, 8820)", "A.ReadAudio(0, 8820)",
                  "A.ReadAudio(" + std::to_string(kHour - 2205) + ", 4410)", "A.CloseDevice"));
  EXPECT_EQ(scrub->StopScrub(), S_OK);
}

TEST_F(EditedAudioPlay, TheLastReleaseEndsScrubbing) {
  auto doomed = Create<IEditedAudio>(CLSID_CEditedAudio);
  doomed->AppendSegment(source_.Get(), 0, kHour);
  auto scrub = As<IScrubSupport>(doomed);
  ASSERT_EQ(scrub->StartScrub(), S_OK);
  ASSERT_EQ(scrub->SetScrubPosition(44'100), S_OK);
  float level = 0;
  WaitUntil([&] { return doomed->GetOutputLevel(1, &level) == S_OK && level > 1; });
  scrub.Reset();
  doomed.Reset();
  EXPECT_EQ(source_->Held(), 1);
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, ScrubbingAndPlayingEndEachOtherAndAreHeard) {
  // Silent where it is played, and heard at the second where it is scrubbed.
  document_->Clear();
  document_->AppendSegment(nullptr, 0, kRate);
  document_.Append(source_, 0, kHour);
  const auto scrub = As<IScrubSupport>(document_.edit);
  const auto heard = [&] {
    float level = 0;
    EXPECT_EQ(document_->GetOutputLevel(0, &level), S_OK);
    return level > 0;
  };
  ASSERT_EQ(document_->Play(0, 1000, kAll, VARIANT_TRUE), S_OK);
  ASSERT_EQ(scrub->StartScrub(), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(scrub->SetScrubPosition(2 * kRate), S_OK);
  WaitUntil(heard);
  ASSERT_EQ(document_->Play(kRate, kRate + 50'000, kAll, VARIANT_TRUE), S_OK);
  WaitForReads();
  WaitUntil(heard);
  EXPECT_TRUE(Playing());
  EXPECT_EQ(scrub->StopScrub(), S_OK);
  EXPECT_TRUE(Playing());
  EXPECT_EQ(document_->StopPlay(), S_OK);
  // The sources were closed before they were opened for the next of the three.
  std::string openings;
  for (const std::string& call : calls_) {
    if (call == "A.OpenDevice") openings += "open ";
    if (call == "A.CloseDevice") openings += "close ";
  }
  EXPECT_EQ(openings, "open close open close open close ");
}

TEST_F(EditedAudioPlay, QuickStartsAndStopsLeaveNoThreadOrHandle) {
  const auto scrub = As<IScrubSupport>(document_.edit);
  const auto cycle = [&](int i) {
    EXPECT_EQ(document_->Play(0, i % 2 == 0 ? 100 : kHour, kAll, VARIANT_TRUE), S_OK);
    if (i % 5 == 0) {
      WaitForReads();
    }
    EXPECT_EQ(document_->StopPlay(), S_OK);
    if (i % 20 != 0) return;
    EXPECT_EQ(scrub->StartScrub(), S_OK);
    EXPECT_EQ(scrub->StopScrub(), S_OK);
  };
  // The first use creates some for good.
  for (int i = 0; i < 20; ++i) cycle(i);
  const unsigned threads = CountThreads();
  const unsigned handles = CountHandles();
  for (int i = 0; i < 200; ++i) cycle(i);
  // A thread that has ended stays in the system's list for a moment.
  WaitUntil([&] { return CountThreads() <= threads && CountHandles() <= handles; });
}

}  // namespace
}  // namespace marlinda::testing
