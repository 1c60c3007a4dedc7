// Plays a known signal for the capture test, which records the sound server's monitor meanwhile:
//   device_player WIDTH BLOCK_FRAMES TOTAL_FRAMES
// Sample n of the interleaved signal is ((n * 7919) mod 60001 - 30000) / 32767.
#include <cstdio>
#include <cstdlib>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

float Signal(std::size_t sample) {
  return static_cast<float>(static_cast<int>(sample * 7919 % 60001) - 30000) / 32767.0F;
}

void Play(SHORT bits, std::size_t block_frames, std::size_t total_frames) {
  auto playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  auto writer = As<IAudioWriter>(playback);
  playback->SetFormat(44100, 2, bits);
  Check(writer->OpenDevice());
  Check(writer->WriteAudio(Floats(2 * 22050)));
  for (std::size_t frame = 0; frame < total_frames; frame += block_frames) {
    const std::size_t frames = std::min(block_frames, total_frames - frame);
    std::vector<float> block(2 * frames);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = Signal(2 * frame + i);
    Check(writer->WriteAudio(Floats(block)));
  }
  for (LONG ready = 0; ready == 0; Sleep(10)) Check(writer->QueryIsReady(&ready));
  Check(writer->CloseDevice());
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  if (argc != 4 || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  int status = 0;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    marlinda::testing::Play(static_cast<SHORT>(std::atoi(argv[1])),
                            static_cast<std::size_t>(std::atoll(argv[2])),
                            static_cast<std::size_t>(std::atoll(argv[3])));
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "failed: 0x%08lX\n", static_cast<unsigned long>(error.code()));
    status = 1;
  }
  marlinda::testing::ModuleUnderTest::Revoke();
  CoUninitialize();
  return status;
}
