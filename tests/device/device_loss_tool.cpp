// Uses a device over and over, which device_loss_test.py takes away meanwhile and gives back:
//   device_loss_tool USE END HERTZ
//     playback  break, close, release   a thread writes a tone
//     document  stop, release           plays a tone over and over
//     scrubber  stop, release           plays a tone into a playback object
//     cursor    stop, release           scrubs in a document
//     recorder  close, release          a thread reads
//     culprit   any                     uses nothing, and fails in everything that is looked at
// A line of input is an order: `start`, `works` (waits until it does), `idle` (waits until a
// playback has ended by itself), `end` and `count`, which lets go of all objects first. The answer
// is lines of "name number", and a dot. Times are in milliseconds.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <thread>

#include "tests/device/device_clients.h"
#include "tests/edit/document.h"
#include "tests/support/process_counts.h"
// After windows.h.
#include <mmsystem.h>

namespace marlinda::testing {
namespace {

constexpr int kMostTicks = 60 * 100;

constexpr std::size_t kBlockFrames = kRate / 10;
constexpr float kLoudness = 0.05F;

// Whole periods of a tone of a multiple of 20 Hz fit into half a block, so that blocks join, also
// where the scrubber overlaps halves of them.
float Tone(int hertz, __int64 frame) {
  const auto in_period = static_cast<double>(frame * hertz % kRate) / kRate;
  return kLoudness * static_cast<float>(std::sin(2 * std::numbers::pi * in_period));
}

struct ToneBlock : Floats {
  explicit ToneBlock(int hertz) : Floats(kChannels * kBlockFrames) {
    for (std::size_t i = 0; i < values().size(); ++i) {
      (*this)[i] = Tone(hertz, static_cast<__int64>(i / kChannels));
    }
  }
};

// One way to use a device, which can be started again after each end.
class Use {
 public:
  virtual ~Use() = default;
  // With the object of the last time, if there still is one.
  virtual HRESULT Start() = 0;
  // What a host goes on asking meanwhile.
  virtual void Ask() {}
  virtual void End() = 0;
  virtual void LetGo() = 0;
  virtual bool Works() { return true; }
  virtual bool Idle() { return true; }
};

// A thread that calls the object over and over, without a reference of its own, so that the last
// release meets it in its wait.
class Caller {
 public:
  template <class Call>
  void Start(Call call) {
    leaving_ = false;
    left_ = false;
    std::atomic<bool> begun{false};
    thread_ = std::thread([this, call, &begun] {
      begun = true;
      do {
        last_ = call();
      } while (SUCCEEDED(last_) && !leaving_);
      left_ = true;
    });
    while (!begun) Sleep(1);
  }
  // To be called before the last release, for the thread must not call an object that is gone.
  // Returns when it has left, or waits in a call for certain: with a device no call takes as long.
  void LeaveOrWait() {
    leaving_ = true;
    for (int tick = 0; tick < 50 && !left_; ++tick) Sleep(10);
  }
  void Join() {
    Timed("join", [this] { thread_.join(); });
    Say("refused %d\n", last_ == E_FAIL ? 1 : 0);
  }

 private:
  std::thread thread_;
  std::atomic<bool> leaving_{false};
  std::atomic<bool> left_{false};
  std::atomic<HRESULT> last_{S_OK};
};

class Playback final : public Use {
 public:
  Playback(std::string end, int hertz) : end_(std::move(end)), block_(hertz) {}
  HRESULT Start() override {
    if (!writer_) writer_ = Speaker(16);
    const HRESULT hr = writer_->OpenDevice();
    producer_.Start([this, borrowed = writer_.Get()] { return borrowed->WriteAudio(block_); });
    return hr;
  }
  void Ask() override {
    const auto playback = As<IAudioPlayback>(writer_);
    __int64 position = 0;
    float level = 0;
    LONG ready = 0;
    Check(playback->GetPlaybackPos(&position));
    Check(playback->GetOutputLevel(0, &level));
    Check(writer_->QueryIsReady(&ready));
  }
  void End() override {
    if (end_ == "break") Timed("break", [this] { As<IAudioPlayback>(writer_)->Break(); });
    if (end_ == "close") Timed("close", [this] { writer_->CloseDevice(); });
    if (end_ == "release") {
      producer_.LeaveOrWait();
      Timed("release", [this] { writer_.Reset(); });
    }
    producer_.Join();
    if (end_ == "break") Timed("close", [this] { writer_->CloseDevice(); });
    if (!writer_) return;
    LONG ready = 0;
    Check(writer_->QueryIsReady(&ready));
    Say("idle %ld\n", ready);
  }
  void LetGo() override { writer_.Reset(); }

 private:
  const std::string end_;
  const ToneBlock block_;
  ComPtr<IAudioWriter> writer_;
  Caller producer_;
};

class Recorder final : public Use {
 public:
  explicit Recorder(std::string end) : end_(std::move(end)), block_(kChannels * kBlockFrames) {}
  HRESULT Start() override {
    if (!reader_) reader_ = Microphone(16);
    loud_blocks_ = 0;
    const HRESULT hr = reader_->OpenDevice();
    consumer_.Start([this, borrowed = reader_.Get()] {
      const HRESULT read = borrowed->ReadAudio(0, block_);
      if (SUCCEEDED(read) && std::ranges::max(block_.values()) > kLoudness) ++loud_blocks_;
      return read;
    });
    return hr;
  }
  // More than what may be left from the last time.
  bool Works() override { return loud_blocks_ >= 10; }
  void End() override {
    if (end_ == "close") Timed("close", [this] { reader_->CloseDevice(); });
    if (end_ == "release") {
      consumer_.LeaveOrWait();
      Timed("release", [this] { reader_.Reset(); });
    }
    consumer_.Join();
  }
  void LetGo() override { reader_.Reset(); }

 private:
  const std::string end_;
  const Floats block_;
  ComPtr<IAudioReader> reader_;
  std::atomic<int> loud_blocks_{0};
  Caller consumer_;
};

class Scrubber final : public Use {
 public:
  Scrubber(std::string end, int hertz) : end_(std::move(end)), block_(hertz) {}
  HRESULT Start() override {
    if (!scrubber_) {
      scrubber_ = Create<IAudioScrubber>(CLSID_CAudioScrubber);
      writer_ = Speaker(16, 100);
    }
    const HRESULT hr = scrubber_->Start(writer_.Get(), kBlockFrames, kRate, kChannels);
    return FAILED(hr) ? hr : scrubber_->WriteBlock(block_);
  }
  void Ask() override { Check(scrubber_->WriteBlock(block_)); }
  void End() override {
    if (end_ == "stop") {
      Timed("stop", [this] { scrubber_->Stop(); });
    } else {
      Timed("release", [this] { LetGo(); });
    }
  }
  void LetGo() override {
    scrubber_.Reset();
    writer_.Reset();
  }

 private:
  const std::string end_;
  const ToneBlock block_;
  ComPtr<IAudioScrubber> scrubber_;
  ComPtr<IAudioWriter> writer_;
};

class ToneSource final : public RampSource {
 public:
  explicit ToneSource(int hertz) : RampSource('A', kChannels, nullptr, kRate), hertz_(hertz) {}
  STDMETHODIMP ReadAudio(__int64 position, SAFEARRAY* samples) override {
    auto* const out = static_cast<float*>(samples->pvData);
    for (ULONG i = 0; i < samples->rgsabound[0].cElements; ++i) {
      out[i] = Tone(hertz_, position + i / kChannels);
    }
    return S_OK;
  }

 private:
  const int hertz_;
};

// Plays in a document, or scrubs in it.
class InDocument final : public Use {
 public:
  InDocument(bool scrubs, std::string end, int hertz)
      : scrubs_(scrubs), end_(std::move(end)), hertz_(hertz) {}
  HRESULT Start() override {
    if (!document_) {
      ComPtr<RampSource> source;
      *source.GetAddressOf() = new ToneSource(hertz_);
      document_.emplace();
      (*document_)->SetFormat(kRate, kChannels, 16);
      document_->Append(source, 0, kRate);
    }
    if (!scrubs_) return (*document_)->Play(0, kRate, 3, VARIANT_TRUE);
    const auto scrub = As<IScrubSupport>(document_->edit);
    const HRESULT hr = scrub->StartScrub();
    return FAILED(hr) ? hr : scrub->SetScrubPosition(kRate / 2);
  }
  bool Idle() override {
    VARIANT_BOOL playing = VARIANT_FALSE;
    __int64 position = 0;
    if (!scrubs_) Check((*document_)->GetPlayStatus(&playing, &position));
    return playing == VARIANT_FALSE;
  }
  void Ask() override {
    Idle();
    float level = 0;
    Check((*document_)->GetOutputLevel(0, &level));
    if (scrubs_) Check(As<IScrubSupport>(document_->edit)->SetScrubPosition(0));
  }
  void End() override {
    if (end_ == "release") {
      Timed("release", [this] { LetGo(); });
    } else if (scrubs_) {
      Timed("stop", [this] { As<IScrubSupport>(document_->edit)->StopScrub(); });
    } else {
      Timed("stop", [this] { (*document_)->StopPlay(); });
      Say("idle %d\n", Idle() ? 1 : 0);
    }
  }
  void LetGo() override { document_.reset(); }

 private:
  const bool scrubs_;
  const std::string end_;
  const int hertz_;
  std::optional<Document> document_;
};

// Shows that what is looked at is seen: it holds threads, handles and an object, goes on after it
// has been refused, and takes longer than anybody may.
class Culprit final : public Use {
 public:
  explicit Culprit(int milliseconds) : milliseconds_(static_cast<DWORD>(milliseconds)) {}
  HRESULT Start() override { return S_OK; }
  void End() override {
    Timed("close", [this] { Sleep(milliseconds_); });
    Say("refused 0\nidle 0\n");
    for (int i = 0; i < 20; ++i) {
      std::thread([] { Sleep(INFINITE); }).detach();
      for (int n = 0; n < 5; ++n) CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    Speaker(16)->AddRef();
  }
  void LetGo() override {}

 private:
  const DWORD milliseconds_;
};

std::unique_ptr<Use> Made(const std::string& use, const std::string& end, int hertz) {
  if (use == "playback") return std::make_unique<Playback>(end, hertz);
  if (use == "recorder") return std::make_unique<Recorder>(end);
  if (use == "scrubber") return std::make_unique<Scrubber>(end, hertz);
  if (use == "culprit") return std::make_unique<Culprit>(hertz);
  return std::make_unique<InDocument>(use == "cursor", end, hertz);
}

template <class Condition>
void WaitFor(const char* name, Condition condition) {
  int ticks = 0;
  while (!condition() && ticks < kMostTicks) {
    Sleep(10);
    ++ticks;
  }
  Say("%s %d\n", name, ticks < kMostTicks ? 1 : 0);
}

void Count() {
  // The factories that are registered keep the module as objects do.
  ModuleUnderTest::Revoke();
  Say("held %d\n", ModuleUnderTest::CanUnloadNow() == S_OK ? 0 : 1);
  ModuleUnderTest::Load();
  FreeLibrary(ModuleUnderTest::Handle());
  Say("threads %u\n", CountThreads());
  Say("handles %u\n", CountHandles());
}

void AskSystem() {
  WAVEFORMATEX format = {WAVE_FORMAT_PCM, kChannels, kRate, 4 * kRate, 4, 16, 0};
  HWAVEOUT out = nullptr;
  HWAVEIN in = nullptr;
  const bool plays = waveOutOpen(&out, WAVE_MAPPER, &format, 0, 0, CALLBACK_NULL) == 0;
  const bool records = waveInOpen(&in, WAVE_MAPPER, &format, 0, 0, CALLBACK_NULL) == 0;
  if (plays) waveOutClose(out);
  if (records) waveInClose(in);
  Say("plays %d\n", plays ? 1 : 0);
  Say("records %d\n", records ? 1 : 0);
}

void Obey(Use& use) {
  for (std::string order; std::getline(std::cin, order);) {
    if (order == "start") {
      HRESULT hr = S_OK;
      Timed("start", [&] { hr = use.Start(); });
      Say("started %d\n", hr == S_OK ? 1 : 0);
      Say("failed %d\n", hr == E_FAIL ? 1 : 0);
    } else if (order == "works") {
      WaitFor("works", [&] { return use.Works(); });
    } else if (order == "idle") {
      WaitFor("idle", [&] { return use.Idle(); });
    } else if (order == "end") {
      Timed("ask", [&] { use.Ask(); });
      use.End();
    } else if (order == "drop") {
      use.LetGo();
    } else if (order == "count") {
      Count();
    } else if (order == "system") {
      AskSystem();
    }
    Say(".\n");
  }
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  if (argc != 4 || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  int status = 0;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    const auto use = marlinda::testing::Made(argv[1], argv[2], std::atoi(argv[3]));
    marlinda::testing::Obey(*use);
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "failed: 0x%08lX\n", static_cast<unsigned long>(error.code()));
    status = 1;
  }
  marlinda::testing::ModuleUnderTest::Revoke();
  CoUninitialize();
  return status;
}
