// Playing and scrubbing a document on the real wave devices of a private sound server. CTest ends a
// wait that never ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>

#include "tests/edit/document.h"
#include "tests/edit/event_sink.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;

constexpr LONG kRate = 44100;
constexpr __int64 kHour = 3600LL * kRate;
constexpr ULONG kAll = 0xFFFFFFFF;

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
  void Play(__int64 begin, __int64 end, bool looped = true, ULONG mask = kAll) {
    EXPECT_EQ(document_->Play(begin, end, mask, looped ? VARIANT_TRUE : VARIANT_FALSE), S_OK);
  }
  void Modify(__int64 begin, __int64 end) {
    EXPECT_EQ(document_->ModifyPlaySection(begin, end), S_OK);
  }
  void Stop() { EXPECT_EQ(document_->StopPlay(), S_OK); }
  // Until two more blocks were read.
  void WaitForReads() {
    WaitUntil([this, begun = reads_.load()] { return reads_ > begun + 1; });
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
  EXPECT_EQ(Level(0), 0.0F);
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
  Stop();
}

TEST_F(EditedAudioPlay, PlayFiresAlsoWhenItStartsNothing) {
  Play(100, 100);
  EXPECT_FALSE(Playing());
  Play(100, 50, false);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(calls_, CallLog());
  Play(500, 510);
  WaitForReads();
  Play(90'000, 95'000, false, 1);
  for (int i = 0; i < 20; ++i) {
    WaitForReads();
    const __int64 position = Position();
    EXPECT_TRUE(500 <= position && position < 510) << position;
  }
  Stop();
  EXPECT_FALSE(Playing());
  EXPECT_EQ(std::ranges::count(calls_, "A.ReadAudio(500, 20)"), std::ssize(calls_) - 2);
  EXPECT_THAT(events_, ElementsAre("s1", "s1", "s1", "s1"));
}

TEST_F(EditedAudioPlay, OnlyALoopGetsAnotherSection) {
  Modify(100, 200);
  Play(500, 510);
  WaitForReads();
  Modify(2000, 2100);
  WaitForReads();
  const __int64 position = Position();
  EXPECT_TRUE(2000 <= position && position < 2100) << position;
  // At least one frame.
  Modify(300, 300);
  EXPECT_EQ(Position(), 300);
  Modify(700, 20);
  EXPECT_EQ(Position(), 700);
  Stop();
  Play(0, kHour, false);
  Modify(kHour - 10, kHour);
  EXPECT_LT(Position(), kHour - 10);
  Stop();
  Modify(100, 200);
  EXPECT_FALSE(Playing());
  EXPECT_THAT(events_, ElementsAre("s1", "s1", "s1", "s1", "s1"));
}

TEST_F(EditedAudioPlay, StopWakesAThreadThatWaitsForTheDevice) {
  Play(0, kHour, false);
  // The device holds a second, which is 25 blocks: the thread waits for room.
  WaitUntil([&] { return reads_ > 27; });
  Stop();
  EXPECT_FALSE(Playing());
  EXPECT_EQ(calls_.back(), "A.CloseDevice");
  Stop();
}

TEST_F(EditedAudioPlay, WhatFailsOnTheThreadEndsThePlayback) {
  const auto last_call = [&] {
    Play(0, 4410, false);
    WaitUntil([&] { return !Playing(); });
    return calls_.back();
  };
  source_->read_result = E_ACCESSDENIED;
  EXPECT_EQ(last_call(), "A.CloseDevice");
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

TEST_F(EditedAudioPlay, ADocumentThatCannotHaveItsDeviceObjectsEditsAndDoesNotPlay) {
  ComPtr<IClassFactory> documents;
  Check(CoGetClassObject(CLSID_CEditedAudio, CLSCTX_ALL, nullptr, IID_IClassFactory,
                         reinterpret_cast<void**>(documents.GetAddressOf())));
  ModuleUnderTest::Revoke();
  ComPtr<IEditedAudio> silent;
  documents->CreateInstance(nullptr, IID_IEditedAudio,
                            reinterpret_cast<void**>(silent.GetAddressOf()));
  const auto scrub = As<IScrubSupport>(silent);
  float level = 0;
  VARIANT_BOOL playing = VARIANT_TRUE;
  __int64 position = 0;
  const HRESULT results[] = {
      silent->AppendSegment(source_.Get(), 0, kHour), silent->Play(0, 4410, kAll, VARIANT_FALSE),
      silent->GetPlayStatus(&playing, &position), scrub->SetScrubPosition(0), scrub->StopScrub()};
  const HRESULT failures[] = {scrub->StartScrub(), silent->GetOutputLevel(0, &level)};
  ModuleUnderTest::Load();
  EXPECT_THAT(results, ::testing::Each(S_OK));
  EXPECT_THAT(failures, ::testing::Each(REGDB_E_CLASSNOTREG));
  EXPECT_EQ(playing, VARIANT_FALSE);
  // What was missing may have come meanwhile.
  EXPECT_EQ(silent->GetOutputLevel(0, &level), S_OK);
  EXPECT_EQ(scrub->StartScrub(), S_OK);
}

TEST_F(EditedAudioPlay, SinksMayPlayStopAndGiveAnotherSection) {
  // Without end, if the document let it.
  sink_->on_event = [&](DISPPARAMS*, EXCEPINFO*) { return Play(500, 510), S_OK; };
  Play(500, 510);
  EXPECT_TRUE(Playing());
  int left = 2;
  sink_->on_event = [&](DISPPARAMS*, EXCEPINFO*) {
    if (left-- > 0) Modify(1000 * left, 1000 * left + 5);
    return S_OK;
  };
  Modify(9000, 9005);
  EXPECT_LT(Position(), 5);
  sink_->on_event = [&](DISPPARAMS*, EXCEPINFO*) { return Stop(), S_OK; };
  Play(0, kHour);
  EXPECT_FALSE(Playing());
}

TEST_F(EditedAudioPlay, ASourceMayStopAndAskFromThePlaybackThread) {
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
  for (const char* how : {"section", "loop", "scrub", "release on the playback thread"}) {
    SCOPED_TRACE(how);
    std::optional<Document> doomed(std::in_place);
    doomed->Append(source_, 0, kHour);
    IEditedAudio* const raw = *doomed;
    reads_ = 0;
    if (how[0] == 'r') {
      std::atomic<bool> go{false};
      source_->on_read = [&](SAFEARRAY*) {
        WaitUntil([&] { return go.load(); });
        if (++reads_ == 2) doomed.reset();
      };
      ASSERT_EQ(raw->Play(0, kHour, kAll, VARIANT_TRUE), S_OK);
      go = true;
    } else if (how[0] == 's' && how[1] == 'c') {
      ASSERT_EQ(doomed->scrub->StartScrub(), S_OK);
      ASSERT_EQ(doomed->scrub->SetScrubPosition(44'100), S_OK);
      float level = 0;
      WaitUntil([&] { return raw->GetOutputLevel(1, &level) == S_OK && level > 1; });
      doomed.reset();
    } else {
      ASSERT_EQ(raw->Play(0, how[0] == 'l' ? 100 : kHour, kAll, how[0] == 'l' ? -1 : 0), S_OK);
      WaitForReads();
      doomed.reset();
    }
    WaitUntil([&] { return how[0] != 'r' || source_->Held() == 1; });
    EXPECT_EQ(source_->Held(), 1);
    EXPECT_EQ(calls_.back(), "A.CloseDevice");
  }
}

TEST_F(EditedAudioPlay, ScrubBlocksAreReadAroundThePositionAndNeverBeforeTheStart) {
  EXPECT_EQ(document_.scrub->StartScrub(), S_OK);
  EXPECT_EQ(document_.scrub->StartScrub(), S_OK);
  for (const __int64 position : {100'000LL, 2206LL, 2205LL, -1LL, kHour}) {
    EXPECT_EQ(document_.scrub->SetScrubPosition(position), S_OK);
  }
  EXPECT_EQ(document_.scrub->StopScrub(), S_OK);
  EXPECT_THAT(calls_,
              ElementsAre("A.OpenDevice", "A.ReadAudio(97795, 8820)", "A.ReadAudio(1, 8820)",
                          "A.ReadAudio(0, 8820)", "A.ReadAudio(0, 8820)",
                          "A.ReadAudio(158757795, 4410)", "A.CloseDevice"));
  EXPECT_EQ(document_.scrub->StopScrub(), S_OK);
}

TEST_F(EditedAudioPlay, ScrubbingAndPlayingEndEachOtherAndAreHeard) {
  // Silent where it is played, and heard at the second where it is scrubbed.
  document_->InsertSegment(0, nullptr, 0, kRate);
  Play(0, 1000);
  ASSERT_EQ(document_.scrub->StartScrub(), S_OK);
  EXPECT_FALSE(Playing());
  EXPECT_EQ(document_.scrub->SetScrubPosition(2 * kRate), S_OK);
  WaitUntil([&] { return Level(0) > 0; });
  Play(kRate, kRate + 50'000);
  WaitForReads();
  WaitUntil([&] { return Level(0) > 0; });
  EXPECT_TRUE(Playing());
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
