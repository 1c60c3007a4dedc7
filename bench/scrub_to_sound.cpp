// Measures the time from SetScrubPosition until the new position is heard. The standard input
// delivers what the speaker plays, as 16-bit stereo at 44.1 kHz.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <span>

#include "tests/support/com_client.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {
namespace {

constexpr __int64 kRate = 44'100;
constexpr std::size_t kBytesPerMillisecond = 44'100 * 4 / 1'000;

// One second of silence, then one of sound.
class SilenceThenSound : public RampSource {
 public:
  SilenceThenSound() : RampSource('A', 2, nullptr, kRate) { frames = 2 * kRate; }

 protected:
  float At(__int64 frame, int) const override { return frame < kRate ? 0.0F : 0.5F; }
};

class Speaker {
 public:
  // Waits for the next piece of what the speaker plays. Returns its bytes.
  std::span<const char> Listen() {
    DWORD read = 0;
    if (!ReadFile(input_, piece_.data(), static_cast<DWORD>(piece_.size()), &read, nullptr) ||
        read == 0) {
      throw HResultError(E_FAIL);
    }
    return std::span(piece_).first(read);
  }
  static bool Sounds(std::span<const char> piece) {
    return std::ranges::any_of(piece, [](char byte) { return byte != 0; });
  }
  void AwaitSound() {
    while (!Sounds(Listen())) {
    }
  }
  void AwaitSilence(std::size_t milliseconds) {
    for (std::size_t silent = 0; silent < milliseconds * kBytesPerMillisecond;) {
      const auto piece = Listen();
      silent = Sounds(piece) ? 0 : silent + piece.size();
    }
  }

 private:
  HANDLE input_ = GetStdHandle(STD_INPUT_HANDLE);
  std::array<char, 4'096> piece_;
};

constexpr int kMoves = 50;

void ScrubToSound(benchmark::State& state) {
  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  const auto source = MakeObject<SilenceThenSound>();
  Check(document->AppendSegment(source.Get(), 0, source->frames));
  const auto scrub = As<IScrubSupport>(document);
  Speaker speaker;
  Check(scrub->StartScrub());
  std::size_t moves = 0;
  for (auto _ : state) {
    Check(scrub->SetScrubPosition(kRate / 2));
    // The scrubber writes every 50 ms. The growing wait spreads the moves over this interval.
    speaker.AwaitSilence(500 + moves++);
    const auto begin = std::chrono::steady_clock::now();
    Check(scrub->SetScrubPosition(kRate * 3 / 2));
    speaker.AwaitSound();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(taken.count());
  }
  Check(scrub->StopScrub());
}
BENCHMARK(ScrubToSound)->UseManualTime()->Iterations(kMoves)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace marlinda::testing
