// Uses sound devices while the calling test stops or kills the sound server or removes the devices:
//   sound_tool play BITS CHANNELS BLOCK_FRAMES FRAMES         plays a signal between silences
//   sound_tool record BITS CHANNELS BLOCK_FRAMES FRAMES FILE  writes floats; prints frames so far
//   sound_tool use playback|drain|document|cursor|recorder ENDING HERTZ
// `use` starts and ends one use of a device. HERTZ is the frequency of the tone it plays. A drain
// plays two seconds and ends by itself. A cursor scrubs a document. `use` reads orders, one a line,
// and answers each with a line of "name=number" words:
//   start  started=1 if the use has begun; a document or cursor begins even without a device
//   works  waits until a recorder has received sound; returns at once for other uses
//   ask    calls the methods that a user interface polls
//   end    ends the use as ENDING says: break, close, stop or release. If ENDING is watch, makes no
//          call, because the engine detects a lost device itself. Then waits for the end of the
//          use's thread, if there is one; refused=1 if that thread's last call returned E_FAIL
//   break  ends a use whose ENDING is watch, if its device still exists
//   idle   waits until nothing plays any more
// The end of the input ends the program. Its status is 1 if objects or threads are left.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <numbers>
#include <optional>
#include <thread>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

constexpr LONG kRate = 44100;
constexpr SHORT kChannels = 2;
// Uses the first device, because the wave mapper converts formats to 16-bit stereo.
constexpr LONG kFirstDevice = 0;

template <class... Arguments>
void Say(const char* format, Arguments... arguments) {
  std::printf(format, arguments...);
  std::fflush(stdout);
}

constexpr std::size_t kToneSamples = kChannels * kRate / 10;
constexpr float kLoudness = 0.05F;

// Returns sample n of a tone. With 0 Hz, returns sample n of the test signal, whose samples are
// never 0, unlike silence. Half a block is 50 ms long, a whole number of periods if the frequency
// is a multiple of 20 Hz. Such a tone continues across blocks, even where the scrubber overlaps
// half blocks.
float Wave(int hertz, __int64 n) {
  if (hertz == 0) {
    const auto k = static_cast<int>(n * 7919 % 60000 - 30000);
    return static_cast<float>(k < 0 ? k : k + 1) / 32767.0F;
  }
  const auto in_period = static_cast<double>(n / kChannels * hertz % kRate) / kRate;
  return kLoudness * static_cast<float>(std::sin(2 * std::numbers::pi * in_period));
}

struct Block : Floats {
  explicit Block(int hertz, std::size_t count = kToneSamples, std::size_t first = 0)
      : Floats(count) {
    for (float& value : values()) value = Wave(hertz, static_cast<__int64>(first++));
  }
};

ComPtr<IAudioWriter> Speaker(SHORT bits, SHORT channels = kChannels, LONG milliseconds = 1000) {
  const auto playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  playback->SetFormat(kRate, channels, bits);
  playback->SetDevice(kFirstDevice);
  playback->SetBufferLength(milliseconds);
  return As<IAudioWriter>(playback);
}

ComPtr<IAudioReader> Microphone(SHORT bits, SHORT channels = kChannels) {
  const auto grabber = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  grabber->SetFormat(kRate, channels, bits);
  grabber->SetDevice(kFirstDevice);
  return As<IAudioReader>(grabber);
}

bool IsReady(const ComPtr<IAudioWriter>& writer) {
  LONG ready = 0;
  Check(writer->QueryIsReady(&ready));
  return ready != 0;
}

void Play(SHORT bits, SHORT channels, std::size_t block_frames, std::size_t frames) {
  const auto writer = Speaker(bits, channels);
  Check(writer->OpenDevice());
  // Silence surrounds the signal, because the sound server drops some milliseconds at the start of
  // a stream, and buffers complete some milliseconds before they are played.
  const auto width = static_cast<std::size_t>(channels);
  const Floats silence(width * kRate);
  Check(writer->WriteAudio(silence));
  for (std::size_t frame = 0; frame < frames; frame += block_frames) {
    const std::size_t count = width * std::min(block_frames, frames - frame);
    Check(writer->WriteAudio(Block(0, count, width * frame)));
  }
  Check(writer->WriteAudio(silence));
  while (!IsReady(writer)) Sleep(10);
  Check(writer->CloseDevice());
}

void Record(SHORT bits, SHORT channels, std::size_t block_frames, std::size_t frames,
            const std::string& path) {
  const auto reader = Microphone(bits, channels);
  std::ofstream file(path, std::ios::binary);
  Check(reader->OpenDevice());
  Say("0\n");
  for (std::size_t frame = 0; frame < frames; frame += block_frames) {
    const std::size_t wanted = std::min(block_frames, frames - frame);
    const Floats block(static_cast<std::size_t>(channels) * wanted);
    Check(reader->ReadAudio(0, block));
    const auto bytes = std::as_bytes(block.values());
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    Say("%u\n", static_cast<unsigned>(frame + wanted));
  }
  Check(reader->CloseDevice());
}

class SoundSource final : public RampSource {
 public:
  explicit SoundSource(int hertz) : RampSource('A', kChannels, nullptr, kRate), hertz_(hertz) {}

 private:
  float At(__int64 frame, int channel) const override {
    return Wave(hertz_, frame * kChannels + channel);
  }

  const int hertz_;
};

bool IsPlaying(const Document& document) {
  VARIANT_BOOL playing = VARIANT_TRUE;
  __int64 position = 0;
  Check(document->GetPlayStatus(&playing, &position));
  return playing != VARIANT_FALSE;
}

// A way to use a device. Start may be called again after each End.
class Use {
 public:
  Use(const std::string& kind, int hertz) : kind_(kind), hertz_(hertz) {}

  HRESULT Start() {
    if (kind_ == "document" || kind_ == "cursor") {
      if (!document_) {
        document_.emplace();
        document_->Append(MakeObject<SoundSource>(hertz_), 0, kRate);
      }
      if (kind_ == "document") return (*document_)->Play(0, kRate, 3, VARIANT_TRUE);
      Check(document_->scrub->StartScrub());
      return document_->scrub->SetScrubPosition(kRate / 2);
    }
    if (kind_ == "recorder") {
      loud_blocks_ = 0;
      if (!reader_) reader_ = Microphone(16);
      const HRESULT hr = reader_->OpenDevice();
      Repeat([this, block = std::make_shared<Block>(hertz_)] {
        const HRESULT read = reader_->ReadAudio(0, *block);
        if (SUCCEEDED(read) && std::ranges::max(block->values()) > kLoudness) ++loud_blocks_;
        return read;
      });
      return hr;
    }
    const bool drains = kind_ == "drain";
    if (!writer_) writer_ = Speaker(16, kChannels, drains ? 60'000 : 1000);
    const HRESULT hr = writer_->OpenDevice();
    const auto block = std::make_shared<Block>(hertz_);
    for (int i = 0; i < 20 && drains && SUCCEEDED(hr); ++i) Check(writer_->WriteAudio(*block));
    if (!drains) Repeat([writer = writer_, block] { return writer->WriteAudio(*block); });
    return hr;
  }

  // Waits until a recorder has received more sound than can be left over from its previous run.
  void Works() const {
    while (reader_ && loud_blocks_ < 10) Sleep(10);
  }

  void Ask() const {
    __int64 position = 0;
    float level = 0;
    if (document_) {
      IsPlaying(*document_);
      Check((*document_)->GetOutputLevel(0, &level));
      if (kind_ == "cursor") Check(document_->scrub->SetScrubPosition(0));
    }
    if (const auto playback = As<IAudioPlayback>(writer_)) {
      Check(playback->GetPlaybackPos(&position));
      Check(playback->GetOutputLevel(0, &level));
      IsReady(writer_);
    }
  }

  void End(const std::string& ending) {
    leaving_ = ending == "release";
    if (ending == "stop" && document_) {
      kind_ == "cursor" ? document_->scrub->StopScrub() : (*document_)->StopPlay();
    }
    if (ending == "break" && document_) (*document_)->StopPlay();
    if (ending == "break" && writer_) As<IAudioPlayback>(writer_)->Break();
    if (ending == "close") reader_ ? reader_->CloseDevice() : writer_->CloseDevice();
    if (ending == "release") {
      document_.reset();
      writer_.Reset();
    }
    if (!thread_.joinable()) return;
    thread_.join();
    Say("refused=%d ", last_ == E_FAIL ? 1 : 0);
  }

  // Waits until nothing plays.
  void Idle() const {
    while (kind_ == "document" && document_ && IsPlaying(*document_)) Sleep(10);
    while (writer_ && !IsReady(writer_)) Sleep(10);
  }

 private:
  // Starts a thread that repeats the call.
  void Repeat(std::function<HRESULT()> call) {
    leaving_ = false;
    thread_ = std::thread([this, call = std::move(call)] {
      do {
        last_ = call();
      } while (SUCCEEDED(last_) && !leaving_);
    });
  }

  const std::string kind_;
  const int hertz_;
  std::optional<Document> document_;
  ComPtr<IAudioWriter> writer_;
  ComPtr<IAudioReader> reader_;
  std::atomic<int> loud_blocks_{0};
  std::thread thread_;
  std::atomic<bool> leaving_{false};
  std::atomic<HRESULT> last_{S_OK};
};

void Obey(Use&& use, const std::string& ending) {
  for (std::string order; std::getline(std::cin, order); Say("\n")) {
    if (order == "start") Say("started=%d ", use.Start() == S_OK ? 1 : 0);
    if (order == "works") use.Works();
    if (order == "ask") use.Ask();
    if (order == "end") use.End(ending);
    if (order == "break") use.End(order);
    if (order == "idle") use.Idle();
  }
}

void Run(const std::vector<std::string>& words) {
  const std::string& command = words.at(0);
  if (command == "use") return Obey(Use(words.at(1), std::stoi(words.at(3))), words.at(2));
  const auto bits = static_cast<SHORT>(std::stoi(words.at(1)));
  const auto channels = static_cast<SHORT>(std::stoi(words.at(2)));
  const std::size_t block_frames = std::stoul(words.at(3));
  const std::size_t frames = std::stoul(words.at(4));
  if (command == "play") return Play(bits, channels, block_frames, frames);
  Record(bits, channels, block_frames, frames, words.at(5));
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  return marlinda::testing::RunClient([&] {
    marlinda::testing::Run({argv + 1, argv + argc});
    return 0;
  });
}
