// The pool through its interfaces, beside the bare system calls on a file of the same kind: bytes
// per second are those of the audio file.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <random>
#include <span>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

constexpr __int64 kFileFrames = 1 << 22;  // stereo
constexpr int kChannels = 2;

struct StereoPool {
  explicit StereoPool(SHORT bits)
      : pool(Create<IAudioPool>(CLSID_CAudioPool)), writer(As<IAudioWriter>(pool)) {
    Check(pool->SetBitDepth(bits, 0));
    Check(writer->SetFormat(44100, kChannels));
  }
  ComPtr<IAudioPool> pool;
  ComPtr<IAudioWriter> writer;
};

void FillWithNoise(std::span<float> samples) {
  std::minstd_rand random(1);
  std::uniform_real_distribution<float> level(-1.0F, 1.0F);
  for (float& sample : samples) sample = level(random);
}

// A file like the pool's own.
FileHandle BareFile(const TemporaryFolder& folder) {
  FileHandle file(CreateFileW(folder.File(L"bare").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                              nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (!file) throw HResultError(LastErrorResult());
  return file;
}

void SeekTo(HANDLE file, __int64 offset) {
  LARGE_INTEGER place;
  place.QuadPart = offset;
  SetFilePointerEx(file, place, nullptr, FILE_BEGIN);
}

// Blocks of 16384 frames, as an import writes them. The file starts over before it grows large.
constexpr std::size_t kBlock = 16384 * kChannels;

void WriteToPool(benchmark::State& state) {
  const auto bits = static_cast<SHORT>(state.range(0));
  Floats block(kBlock);
  FillWithNoise(block.values());
  StereoPool pool(bits);
  Check(pool.writer->OpenDevice());
  __int64 frames = 0;
  for (auto _ : state) {
    if ((frames += kBlock / kChannels) > kFileFrames) {
      state.PauseTiming();
      pool = StereoPool(bits);
      Check(pool.writer->OpenDevice());
      frames = 0;
      state.ResumeTiming();
    }
    Check(pool.writer->WriteAudio(block));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<__int64>(kBlock) * bits / 8);
}
BENCHMARK(WriteToPool)->ArgName("bits")->Arg(8)->Arg(16)->Arg(24)->Arg(32)->UseRealTime();

void WriteToBareFile(benchmark::State& state) {
  const __int64 size = static_cast<__int64>(kBlock) * state.range(0) / 8;
  const std::vector<std::byte> block(static_cast<std::size_t>(size), std::byte{1});
  const TemporaryFolder folder;
  const FileHandle file = BareFile(folder);
  __int64 offset = 0;
  for (auto _ : state) {
    if (offset > kFileFrames * kChannels * state.range(0) / 8) {
      state.PauseTiming();
      offset = 0;
      SeekTo(file.get(), 0);
      SetEndOfFile(file.get());
      state.ResumeTiming();
    }
    DWORD written = 0;
    WriteFile(file.get(), block.data(), static_cast<DWORD>(size), &written, nullptr);
    offset += size;
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(WriteToBareFile)->ArgName("bits")->Arg(8)->Arg(16)->Arg(24)->Arg(32)->UseRealTime();

// Random places are drawn beforehand, the same for all.
std::vector<__int64> Places(__int64 frames_read) {
  std::minstd_rand random(2);
  std::uniform_int_distribution<__int64> frame(0, kFileFrames - frames_read);
  std::vector<__int64> places(4096);
  std::ranges::generate(places, [&] { return frame(random); });
  return places;
}

void ReadFromPool(benchmark::State& state) {
  const auto bits = static_cast<SHORT>(state.range(0));
  const __int64 frames = state.range(1);
  StereoPool pool(bits);
  {
    Floats content(kFileFrames * kChannels);
    FillWithNoise(content.values());
    Check(pool.writer->OpenDevice());
    Check(pool.writer->WriteAudio(content));
    Check(pool.writer->CloseDevice());
  }
  ComPtr<IAudioReader> reader;
  Check(pool.pool->CreateLastReader(reader.GetAddressOf()));
  const std::vector<__int64> places = Places(frames);
  Floats block(static_cast<std::size_t>(frames * kChannels));
  std::size_t next = 0;
  for (auto _ : state) Check(reader->ReadAudio(places[next++ % places.size()], block));
  state.SetBytesProcessed(state.iterations() * frames * kChannels * bits / 8);
}
BENCHMARK(ReadFromPool)
    ->ArgNames({"bits", "frames"})
    ->ArgsProduct({{8, 16, 24, 32}, {512, 4096, 65536}})
    ->UseRealTime();

void ReadFromBareFile(benchmark::State& state) {
  const __int64 frame_bytes = kChannels * state.range(0) / 8;
  const __int64 frames = state.range(1);
  const TemporaryFolder folder;
  const FileHandle file = BareFile(folder);
  {
    const std::vector<std::byte> content(static_cast<std::size_t>(kFileFrames * frame_bytes),
                                         std::byte{1});
    DWORD written = 0;
    WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
  }
  const std::vector<__int64> places = Places(frames);
  std::vector<std::byte> block(static_cast<std::size_t>(frames * frame_bytes));
  std::size_t next = 0;
  for (auto _ : state) {
    SeekTo(file.get(), places[next++ % places.size()] * frame_bytes);
    DWORD read = 0;
    ReadFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &read, nullptr);
  }
  state.SetBytesProcessed(state.iterations() * frames * frame_bytes);
}
BENCHMARK(ReadFromBareFile)
    ->ArgNames({"bits", "frames"})
    ->ArgsProduct({{8, 16, 24, 32}, {512, 4096, 65536}})
    ->UseRealTime();

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int result = 1;
  try {
    marlinda::testing::ModuleUnderTest::Load();
    benchmark::RunSpecifiedBenchmarks();
    result = 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "failed with 0x%08lX\n", static_cast<unsigned long>(error.code()));
  }
  marlinda::testing::ModuleUnderTest::Revoke();
  CoUninitialize();
  return result;
}
