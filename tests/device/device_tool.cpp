// The module's client in the device tests that another program drives (device_test.py):
//   device_tool play WIDTH BLOCK_FRAMES TOTAL_FRAMES [WAV-FILE]
//   device_tool record WIDTH READ_FRAMES TOTAL_FRAMES FILE
//   device_tool lose write|drain
// With a file a wave writer stands in front of the speaker and records there what is played.
// Sample n of the interleaved signal that is played is ((n * 7919) mod 60001 - 30000) / 32767. A
// recording goes into a pool of the same width and from there into the file as raw floats; the
// frames it has so far are told on standard output. `lose` plays, says "ready",
// waits for a line of input, during which the sound server dies, and tells as "name value" how what
// it does then goes; times are in milliseconds.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "tests/device/device_clients.h"

namespace marlinda::testing {
namespace {

float Signal(std::size_t sample) {
  return static_cast<float>(static_cast<int>(sample * 7919 % 60001) - 30000) / 32767.0F;
}

// A wave writer that passes all on to `next`.
ComPtr<IAudioWriter> Recorder(const ComPtr<IAudioWriter>& next, SHORT bits, const char* path) {
  auto recorder = Create<IWaveWriter>(CLSID_CWaveWriter);
  recorder->SetWriteThrough(next.Get());
  recorder->SetResolution(bits);
  recorder->SetTargetFile(Bstr(std::wstring(path, path + std::strlen(path))));
  return As<IAudioWriter>(recorder);
}

void Play(SHORT bits, std::size_t block_frames, std::size_t total_frames, const char* path) {
  auto writer = Speaker(bits);
  if (path != nullptr) writer = Recorder(writer, bits, path);
  Check(writer->OpenDevice());
  // The sound server swallows some milliseconds of what a stream starts with, and buffers count as
  // played some milliseconds before they are.
  const Floats silence(3 * kRate);
  Check(writer->WriteAudio(silence));
  for (std::size_t frame = 0; frame < total_frames; frame += block_frames) {
    Floats block(kChannels * std::min(block_frames, total_frames - frame));
    for (std::size_t i = 0; i < block.values().size(); ++i) {
      block[i] = Signal(kChannels * frame + i);
    }
    Check(writer->WriteAudio(block));
  }
  Check(writer->WriteAudio(silence));
  for (LONG ready = 0; ready == 0; Sleep(10)) Check(writer->QueryIsReady(&ready));
  Check(writer->CloseDevice());
}

void Record(SHORT bits, std::size_t read_frames, std::size_t total_frames, const char* path) {
  auto reader = Microphone(bits);
  auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  auto writer = As<IAudioWriter>(pool);
  Check(pool->SetBitDepth(bits, 0));
  Check(writer->SetFormat(kRate, kChannels));
  Check(writer->OpenDevice());
  Check(reader->OpenDevice());
  Say("0\n");
  for (std::size_t frame = 0; frame < total_frames; frame += read_frames) {
    Floats block(kChannels * std::min(read_frames, total_frames - frame));
    Check(reader->ReadAudio(0, block));
    Check(writer->WriteAudio(block));
    Say("%u\n", static_cast<unsigned>(frame + block.values().size() / kChannels));
  }
  Check(reader->CloseDevice());
  Check(writer->CloseDevice());

  ComPtr<IAudioReader> take;
  Check(pool->CreateLastReader(take.GetAddressOf()));
  Check(take->OpenDevice());
  Floats all(kChannels * total_frames);
  Check(take->ReadAudio(0, all));
  Check(take->CloseDevice());
  std::ofstream file(path, std::ios::binary);
  const auto bytes = std::as_bytes(all.values());
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

void AwaitLoss() {
  Say("ready\n");
  for (int c = 0; c != '\n' && c != EOF; c = std::getchar()) {
  }
}

// A writer that waits for room.
void LoseWriting() {
  auto writer = Speaker(16);
  Check(writer->OpenDevice());
  std::atomic<int> written{0};
  std::atomic<HRESULT> last{S_OK};
  std::thread producer([&] {
    Floats block(kChannels * kRate / 2, 0.1F);
    while (SUCCEEDED(last = writer->WriteAudio(block))) ++written;
  });
  while (written < 3) Sleep(10);
  AwaitLoss();
  Timed("noticed", [&] { producer.join(); });
  Say("refused %d\n", last == E_FAIL ? 1 : 0);
  LONG ready = 0;
  Check(writer->QueryIsReady(&ready));
  Say("idle %ld\n", ready);
}

// Nobody writes any more; what is queued is waited for.
void LoseDraining() {
  auto writer = Speaker(16, 5000);
  Check(writer->OpenDevice());
  const Floats second(kChannels * kRate, 0.1F);
  for (int i = 0; i < 5; ++i) Check(writer->WriteAudio(second));
  AwaitLoss();
  LONG ready = 0;
  Timed("noticed", [&] {
    for (; ready == 0; Sleep(10)) Check(writer->QueryIsReady(&ready));
  });
  Say("idle %ld\n", ready);
  Say("refused %d\n", writer->WriteAudio(second) == E_FAIL ? 1 : 0);
}

int Run(const std::vector<std::string>& words) {
  const auto number = [&](std::size_t i) { return std::strtoul(words.at(i).c_str(), nullptr, 10); };
  const std::string& command = words.at(0);
  if (command == "play") {
    Play(static_cast<SHORT>(number(1)), number(2), number(3),
         words.size() > 4 ? words[4].c_str() : nullptr);
  } else if (command == "record") {
    Record(static_cast<SHORT>(number(1)), number(2), number(3), words.at(4).c_str());
  } else if (command == "lose" && words.at(1) == "drain") {
    LoseDraining();
  } else if (command == "lose" && words.at(1) == "write") {
    LoseWriting();
  } else {
    return 2;
  }
  return 0;
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  if (argc < 2 || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  int status = 0;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    status = marlinda::testing::Run({argv + 1, argv + argc});
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "failed: 0x%08lX\n", static_cast<unsigned long>(error.code()));
    status = 1;
  }
  if (!marlinda::testing::ModuleUnderTest::RevokeAndSeeUnused()) status = 1;
  CoUninitialize();
  return status;
}
