// Playing and scrubbing a document on the real wave devices of a private sound server. CTest ends a
// wait that never ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

constexpr LONG kRate = 44100;
constexpr __int64 kHour = 3600LL * kRate;

template <class Condition>
void WaitUntil(Condition&& condition) {
  while (!condition()) Sleep(10);
}

class EditedAudioPlay : public ::testing::Test {
 protected:
  EditedAudioPlay() {
    source_->on_read = [this](SAFEARRAY*) { ++reads_; };
    document_.Append(source_, 0, kHour);
    sink_->Connect(document_);
    calls_.clear();
  }

  // -1 when nothing plays.
  __int64 Position() {
    VARIANT_BOOL playing = 77;
    __int64 position = 0;
    EXPECT_EQ(document_->GetPlayStatus(&playing, &position), S_OK);
    EXPECT_TRUE(playing == VARIANT_TRUE || (playing == VARIANT_FALSE && position == 0));
    return playing == VARIANT_TRUE ? position : -1;
  }
  bool Playing() { return Position() >= 0; }
  void Play(__int64 begin, __int64 end, bool looped = true, ULONG mask = 3) {
    EXPECT_EQ(document_->Play(begin, end, mask, looped ? VARIANT_TRUE : VARIANT_FALSE), S_OK);
  }
  void Modify(__int64 begin, __int64 end) {
    EXPECT_EQ(document_->ModifyPlaySection(begin, end), S_OK);
  }
  void Stop() { EXPECT_EQ(document_->StopPlay(), S_OK); }
  void WaitForReads(int more = 2) {
    WaitUntil([more, this, begun = reads_.load()] { return reads_ >= begun + more; });
  }
  float Level(SHORT channel) {
    float level = -1;
    EXPECT_EQ(document_->GetOutputLevel(channel, &level), S_OK);
    return level;
  }

  std::atomic<int> reads_{0};
  // To be looked at while no thread runs.
  CallLog calls_;
  CallLog events_;
  const ComPtr<Sink> sink_ = MakeObject<Sink>("s", &events_);
  const ComPtr<RampSource> source_ = RampSource::Make('A', 2, &calls_);
  Document document_;
};

TEST_F(EditedAudioPlay, PlaysASectionToItsEndInBlocksOfFortyMilliseconds) {
  EXPECT_FALSE(Playing());
  Play(1000, 1000 + 17640 + 41, false);
  __int64 last = 1000;
  for (__int64 position = 0; (position = Position()) >= 0; Sleep(20)) {
    // The whole section once more is its first frame.
    EXPECT_TRUE(position >= last || position == 1000) << position << " after " << last;
    EXPECT_LT(position, 1000 + 17640 + 41);
    last = std::max(last, position);
  }
  EXPECT_GT(last, 1000);
  CallLog expected = {"A.OpenDevice"};
  for (int block = 0; block < 10; ++block) {
    expected.push_back("A.ReadAudio(" + std::to_string(1000 + block * 1764) + ", 3528)");
  }
  expected.insert(expected.end(), {"A.ReadAudio(18640, 82)", "A.CloseDevice"});
  EXPECT_EQ(calls_, expected);
}

TEST_F(EditedAudioPlay, PlayFiresAlsoWhenItStartsNothingAndOnlyALoopGetsAnotherSection) {
  Modify(100, 200);
  Play(100, 100);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(calls_, CallLog());
  Play(500, 510);
  WaitForReads();
  Play(90'000, 95'000, false);
  WaitForReads();
  EXPECT_LT(Position(), 510);
  Modify(2000, 2100);
  WaitForReads();
  EXPECT_THAT(Position(), ::testing::AllOf(::testing::Ge(2000), ::testing::Lt(2100)));
  Modify(700, 20);  // at least one frame
  EXPECT_EQ(Position(), 700);
  Stop();
  Play(0, kHour, false);
  Modify(kHour - 10, kHour);
  // The device holds a second, which is 25 blocks: the thread waits for room.
  WaitForReads(28);
  EXPECT_LT(Position(), kHour - 10);
  Stop();
  EXPECT_FALSE(Playing());
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
  EXPECT_EQ(events_, CallLog(6, "s1"));
}

TEST_F(EditedAudioPlay, WhatFailsOnTheThreadEndsThePlayback) {
  const auto last_call = [&] {
    Play(0, 4410, false);
    WaitUntil([&] { return !Playing(); });
    return calls_.back();
  };
  source_->read_result = E_ACCESSDENIED;
  EXPECT_EQ(last_call(), "A.CloseDevice");
  EXPECT_EQ(calls_.size(), 3u);
  source_->read_result = S_OK;
  source_->open_result = E_ACCESSDENIED;
  EXPECT_EQ(last_call(), "A.OpenDevice");
  source_->open_result = S_OK;
  EXPECT_EQ(document_->SetPlaybackDevice(4711), S_OK);
  EXPECT_EQ(last_call(), "A.OpenDevice");
  // None of it stands in the way of the next one.
  EXPECT_EQ(document_->SetPlaybackDevice(-1), S_OK);
  EXPECT_EQ(last_call(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, SinksAndSourcesMayPlayStopAndGiveAnotherSection) {
  // Without end, if the document let it.
  sink_->on_event = [&](DISPPARAMS*, EXCEPINFO*) { return Play(500, 510), S_OK; };
  Play(500, 510);
  EXPECT_TRUE(Playing());
  sink_->on_event = [&](DISPPARAMS*, EXCEPINFO*) { return Stop(), S_OK; };
  Modify(0, kHour);
  EXPECT_FALSE(Playing());
  sink_->on_event = nullptr;
  reads_ = 0;
  source_->on_read = [&](SAFEARRAY*) {
    if (++reads_ != 3) return;
    EXPECT_TRUE(Playing());
    Modify(5, 6);
    Stop();
  };
  Play(0, kHour);
  WaitUntil([&] { return reads_ >= 3 && !Playing(); });
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, TheLastReleaseEndsPlayingAndScrubbing) {
  enum How { kSection, kLoop, kScrub, kOnThePlaybackThread };
  for (const How how : {kSection, kLoop, kScrub, kOnThePlaybackThread}) {
    SCOPED_TRACE(how);
    std::optional<Document> doomed(std::in_place);
    doomed->Append(source_, 0, kHour);
    reads_ = 0;
    std::atomic<bool> go = false;
    source_->on_read = [&](SAFEARRAY*) {
      WaitUntil([&] { return go || how == kScrub; });
      if (++reads_ == 2 && how == kOnThePlaybackThread) doomed.reset();
    };
    if (how == kScrub) {
      ASSERT_EQ(doomed->scrub->StartScrub(), S_OK);
      ASSERT_EQ(doomed->scrub->SetScrubPosition(44'100), S_OK);
    } else {
      ASSERT_EQ((*doomed)->Play(0, how == kLoop ? 100 : kHour, 3,
                                how == kSection ? VARIANT_FALSE : VARIANT_TRUE),
                S_OK);
    }
    go = true;
    if (how == kOnThePlaybackThread) {
      WaitUntil([&] { return source_->Held() == 1; });
    } else {
      if (how != kScrub) WaitForReads();
      doomed.reset();
    }
    EXPECT_EQ(source_->Held(), 1);
    EXPECT_EQ(calls_.back(), "A.CloseDevice");
  }
}

TEST_F(EditedAudioPlay, ScrubBlocksAreReadAroundThePositionAndNeverBeforeTheStart) {
  EXPECT_EQ(document_.scrub->StartScrub(), S_OK);
  EXPECT_EQ(document_.scrub->StartScrub(), S_OK);
  for (const __int64 position : {100'000LL, -1LL, kHour}) {
    EXPECT_EQ(document_.scrub->SetScrubPosition(position), S_OK);
  }
  EXPECT_EQ(document_.scrub->StopScrub(), S_OK);
  EXPECT_THAT(calls_,
              ElementsAre("A.OpenDevice", "A.ReadAudio(97795, 8820)", "A.ReadAudio(0, 8820)",
                          "A.ReadAudio(158757795, 4410)", "A.CloseDevice"));
}

TEST_F(EditedAudioPlay, ScrubbingAndPlayingEndEachOtherAndAreHeard) {
  // Silent where it is played, and heard at the second where it is scrubbed.
  document_->InsertSegment(0, nullptr, 0, kRate);
  Play(0, 1000);
  ASSERT_EQ(document_.scrub->StartScrub(), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(document_.scrub->SetScrubPosition(2 * kRate), S_OK);
  WaitUntil([&] { return Level(0) > 0; });
  Play(kRate, kRate + 50'000, true, 2);
  WaitForReads();
  WaitUntil([&] { return Level(1) > 0; });
  EXPECT_EQ(Level(0), 0) << "the mask leaves it out";
  EXPECT_EQ(document_.scrub->StopScrub(), S_OK);
  EXPECT_TRUE(Playing());
  Stop();
  // The sources were closed before they were opened for the next of the three.
  std::erase_if(calls_, [](const std::string& call) { return call.starts_with("A.Read"); });
  const CallLog once = {"A.OpenDevice", "A.CloseDevice"};
  EXPECT_THAT(calls_, ElementsAre(once[0], once[1], once[0], once[1], once[0], once[1]));
}

}  // namespace
}  // namespace marlinda::testing
