// Tests playing and scrubbing of a document on the real wave devices of a private sound server.
// Waits have no limit, because CTest ends a test that hangs.
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

  // Returns -1 if nothing plays.
  __int64 Position() {
    VARIANT_BOOL playing = 77;
    __int64 position = 0;
    EXPECT_EQ(document_->GetPlayStatus(&playing, &position), S_OK);
    EXPECT_TRUE(playing == VARIANT_TRUE || (playing == VARIANT_FALSE && position == 0));
    return playing == VARIANT_TRUE ? position : -1;
  }
  void Play(__int64 begin, __int64 end, bool looped = true, ULONG mask = 3) {
    EXPECT_EQ(document_->Play(begin, end, mask, looped ? VARIANT_TRUE : VARIANT_FALSE), S_OK);
  }
  void WaitForReads(int more = 2) {
    WaitUntil([more, this, begun = reads_.load()] { return reads_ >= begun + more; });
  }
  float Level(SHORT channel) {
    float level = -1;
    EXPECT_EQ(document_->GetOutputLevel(channel, &level), S_OK);
    return level;
  }

  std::atomic<int> reads_{0};
  // Read calls_ only while the playback thread does not run.
  CallLog calls_;
  CallLog events_;
  const ComPtr<Sink> sink_ = MakeObject<Sink>("s", &events_);
  const ComPtr<RampSource> source_ = RampSource::Make('A', 2, &calls_);
  Document document_;
};

TEST_F(EditedAudioPlay, PlaysASectionToItsEndInBlocksOfFortyMilliseconds) {
  EXPECT_EQ(Position(), -1);
  Play(1000, 1000 + 3 * 1764 + 41, false);
  for (__int64 position = 0; (position = Position()) >= 0; Sleep(20)) {
    EXPECT_TRUE(position >= 1000 && position < 1000 + 3 * 1764 + 41) << position;
  }
  EXPECT_THAT(calls_,
              ElementsAre("A.OpenDevice", "A.ReadAudio(1000, 3528)", "A.ReadAudio(2764, 3528)",
                          "A.ReadAudio(4528, 3528)", "A.ReadAudio(6292, 82)", "A.CloseDevice"));
}

TEST_F(EditedAudioPlay, PlayAlwaysFiresItsEventAndModifyPlaySectionAffectsOnlyLoops) {
  document_->ModifyPlaySection(100, 200);
  Play(100, 100);
  EXPECT_EQ(Position(), -1);
  EXPECT_EQ(calls_, CallLog());
  Play(500, 510);
  WaitForReads();
  Play(90'000, 95'000, false);
  WaitForReads();
  EXPECT_LT(Position(), 510);
  document_->ModifyPlaySection(2000, 2100);
  WaitForReads();
  EXPECT_THAT(Position(), ::testing::AllOf(::testing::Ge(2000), ::testing::Lt(2100)));
  document_->ModifyPlaySection(700, 20);  // a backward section plays one frame
  EXPECT_EQ(Position(), 700);
  document_->StopPlay();
  Play(0, kHour, false);
  document_->ModifyPlaySection(kHour - 10, kHour);
  // The device queues 26 blocks, about a second. Before the 28th read, it has played at least one.
  WaitForReads(28);
  EXPECT_LT(Position(), kHour - 10);
  document_->StopPlay();
  EXPECT_EQ(Position(), -1);
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
  EXPECT_EQ(events_, CallLog(6, "s1"));
}

TEST_F(EditedAudioPlay, AFailedReadOrOpenEndsThePlayback) {
  const auto last_call = [&] {
    Play(0, 4410, false);
    WaitUntil([&] { return Position() < 0; });
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
  EXPECT_EQ(document_->SetPlaybackDevice(-1), S_OK);
  EXPECT_EQ(last_call(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, SinksAndSourcesMayPlayStopAndChangeTheSection) {
  // Each Play fires the event that calls Play again, so the document must limit the recursion.
  sink_->on_event = [&](DISPPARAMS*) { return Play(500, 510), S_OK; };
  Play(500, 510);
  sink_->on_event = [&](DISPPARAMS*) { return document_->StopPlay(); };
  document_->ModifyPlaySection(0, kHour);
  EXPECT_EQ(Position(), -1);
  sink_->on_event = nullptr;
  reads_ = 0;
  source_->on_read = [&](SAFEARRAY*) {
    if (++reads_ != 3) return;
    document_->ModifyPlaySection(5, 6);
    document_->StopPlay();
  };
  Play(0, kHour);
  WaitUntil([&] { return reads_ >= 3 && Position() < 0; });
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
}

TEST_F(EditedAudioPlay, TheLastReleaseEndsPlayingAndScrubbing) {
  enum How { kLoop, kScrub, kOnThePlaybackThread };
  for (const How how : {kLoop, kScrub, kOnThePlaybackThread}) {
    SCOPED_TRACE(how);
    std::optional<Document> doomed(std::in_place);
    doomed->Append(source_, 0, kHour);
    reads_ = 0;
    std::atomic<bool> go = how == kScrub;
    source_->on_read = [&](SAFEARRAY*) {
      WaitUntil([&] { return go.load(); });
      if (++reads_ == 2 && how == kOnThePlaybackThread) doomed.reset();
    };
    if (how == kScrub) {
      ASSERT_EQ(doomed->scrub->StartScrub(), S_OK);
      ASSERT_EQ(doomed->scrub->SetScrubPosition(44'100), S_OK);
    } else {
      ASSERT_EQ((*doomed)->Play(0, how == kLoop ? 100 : kHour, 3, VARIANT_TRUE), S_OK);
    }
    go = true;
    if (how == kLoop) WaitForReads();
    if (how != kOnThePlaybackThread) doomed.reset();
    WaitUntil([&] { return source_->Held() == 1; });
    EXPECT_EQ(calls_.back(), "A.CloseDevice");
  }
}

TEST_F(EditedAudioPlay, ScrubbingEndsPlaybackAndPlaysTheAudioAroundThePosition) {
  Play(0, 1000);
  ASSERT_EQ(document_.scrub->StartScrub(), S_OK);
  EXPECT_EQ(Position(), -1);
  calls_.clear();
  EXPECT_EQ(document_.scrub->StartScrub(), S_OK);
  for (const __int64 position : {100'000LL, -1LL, kHour}) {
    EXPECT_EQ(document_.scrub->SetScrubPosition(position), S_OK);
  }
  WaitUntil([&] { return Level(0) > 0; });
  document_->InsertSegment(0, nullptr, 0, kRate);
  // The section begins with silence, so that the level falls. The mask 2 selects only the second
  // channel.
  Play(0, kRate + 50'000, true, 2);
  WaitUntil([&] { return Level(0) <= 0; });
  WaitUntil([&] { return Level(1) > 0; });
  EXPECT_EQ(Level(0), 0) << "the mask leaves it out";
  EXPECT_EQ(document_.scrub->StopScrub(), S_OK);
  EXPECT_GE(Position(), 0);
  document_->StopPlay();
  calls_.resize(6);
  EXPECT_THAT(calls_, ElementsAre("A.ReadAudio(97795, 8820)", "A.ReadAudio(0, 8820)",
                                  "A.ReadAudio(158757795, 4410)", "A.CloseDevice", "A.OpenDevice",
                                  "A.ReadAudio(0, 3528)"));
}

}  // namespace
}  // namespace marlinda::testing
