// Plays a document for play_capture_test.py, which records the speaker:
//   edit_player mask         66000 frames between silences, the left channel only
//   edit_player modify       frames 2000 to 7000 over and over, then 50 to 777, a line ending each
// Sample n of the interleaved signal is k / 32767 with k = (n * 7919) mod 60000 - 30000, or k + 1
// where that is not negative: never 0.
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
    // The sound server drops the first milliseconds of a stream, and buffers count as played some
    // milliseconds too early.
    document->AppendSegment(nullptr, 0, kRate / 2);
    document.Append(source, 0, 66'000);
    document->AppendSegment(nullptr, 0, kRate);
    Check(document->Play(0, document.Length(), 1, VARIANT_FALSE));
    WaitForEnd(document);
  } else if (how == "modify") {
    document.Append(source, 0, 66'000);
    Check(document->Play(2000, 7000, 3, VARIANT_TRUE));
    AwaitLine();
    Check(document->ModifyPlaySection(50, 777));
    AwaitLine();
    Check(document->StopPlay());
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
