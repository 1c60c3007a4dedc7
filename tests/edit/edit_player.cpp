// Plays a document for the capture test, which hears what the speaker is given:
//   edit_player mask         66000 frames between silences, the left channel only
//   edit_player loop         frames 100 to 110 over and over, until a line comes in
//   edit_player modify       frames 2000 to 7000 over and over, then 50 to 777, a line ending each
//   edit_player lost         plays and scrubs until a line comes in, the device being gone by then
// Sample n of the interleaved signal is k / 32767 with k = (n * 7919) mod 60000 - 30000, or k + 1
// where that is not negative: never 0.
#include <atomic>
#include <cstdio>
#include <string_view>

#include "tests/edit/document.h"

namespace marlinda::testing {
namespace {

constexpr LONG kRate = 44100;

class SignalSource final : public RampSource {
 public:
  SignalSource() : RampSource('A', 2, nullptr, kRate) {}

  STDMETHODIMP ReadAudio(__int64 position, SAFEARRAY* samples) override {
    auto* const out = static_cast<float*>(samples->pvData);
    for (ULONG i = 0; i < samples->rgsabound[0].cElements; ++i) {
      const __int64 k = (2 * position + i) * 7919 % 60000 - 30000;
      out[i] = static_cast<float>(k < 0 ? k : k + 1) / 32767.0F;
    }
    return S_OK;
  }
};

void AwaitLine() {
  for (int c = 0; c != '\n' && c != EOF; c = std::getchar()) {
  }
}

void WaitForEnd(const Document& document) {
  VARIANT_BOOL playing = VARIANT_TRUE;
  for (__int64 position = 0; playing != VARIANT_FALSE; Sleep(10)) {
    Check(document->GetPlayStatus(&playing, &position));
  }
}

void Play(std::string_view how) {
  ComPtr<RampSource> source;
  *source.GetAddressOf() = new SignalSource();
  Document document;
  document->SetFormat(kRate, 2, 32);
  if (how == "mask") {
    // The sound server swallows some milliseconds of what a stream starts with, and buffers count
    // as played some milliseconds before they are.
    document->AppendSegment(nullptr, 0, kRate / 2);
    document.Append(source, 0, 66'000);
    document->AppendSegment(nullptr, 0, kRate);
    Check(document->Play(0, document.Length(), 1, VARIANT_FALSE));
    WaitForEnd(document);
    return;
  }
  document.Append(source, 0, 66'000);
  if (how == "loop") {
    Check(document->Play(100, 110, 3, VARIANT_TRUE));
    AwaitLine();
    Check(document->StopPlay());
  } else if (how == "modify") {
    Check(document->Play(2000, 7000, 3, VARIANT_TRUE));
    AwaitLine();
    Check(document->ModifyPlaySection(50, 777));
    AwaitLine();
    Check(document->StopPlay());
  } else if (how == "lost") {
    Document scrubbed;
    scrubbed.Append(source, 0, 66'000);
    Check(document->Play(0, 66'000, 3, VARIANT_TRUE));
    Check(As<IScrubSupport>(scrubbed.edit)->StartScrub());
    Document left_alone;
    left_alone->SetFormat(kRate, 2, 16);
    left_alone.Append(source, 0, 66'000);
    Check(left_alone->Play(0, 66'000, 3, VARIANT_TRUE));
    for (const auto& player : {&document, &left_alone}) {
      for (float level = 0; level <= 0; Sleep(10)) {
        Check((*player)->GetOutputLevel(0, &level));
      }
    }
    std::puts("playing");
    std::fflush(stdout);
    AwaitLine();
    Check(document->StopPlay());
    Check(As<IScrubSupport>(scrubbed.edit)->StopScrub());
    VARIANT_BOOL playing = VARIANT_TRUE;
    __int64 position = -1;
    Check(document->GetPlayStatus(&playing, &position));
    std::puts(playing == VARIANT_FALSE && position == 0 ? "stopped" : "still playing");
    // Playing ends by itself, too.
    WaitForEnd(left_alone);
    // Nothing can be played any more, and nothing may hang over it.
    Check(document->Play(0, 66'000, 3, VARIANT_TRUE));
    WaitForEnd(document);
    std::puts("ended");
  }
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  if (argc != 2 || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  int status = 0;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    marlinda::testing::Play(argv[1]);
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "failed: 0x%08lX\n", static_cast<unsigned long>(error.code()));
    status = 1;
  }
  if (!marlinda::testing::ModuleUnderTest::RevokeAndSeeUnused()) status = 1;
  CoUninitialize();
  return status;
}
