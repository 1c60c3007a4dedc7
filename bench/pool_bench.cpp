// Measures the pool's interfaces, and bare system calls on a file like the pool's. Bytes per second
// count the audio file but not the peak file.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <random>
#include <span>
#include <vector>

#include "bench/bench_support.h"
#include "core/handle.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using bench::CountBytes;

constexpr int kChannels = bench::kStereo;
constexpr __int64 kMinuteFrames = 60 * 44100;

struct StereoPool {
  explicit StereoPool(SHORT bits)
      : pool(Create<IAudioPool>(CLSID_CAudioPool)), writer(As<IAudioWriter>(pool)) {
    Check(pool->SetBitDepth(bits, 0));
    Check(writer->SetFormat(44100, kChannels));
  }
  ComPtr<IAudioPool> pool;
  ComPtr<IAudioWriter> writer;
};

// A file with the attributes of the pool's files.
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

// WriteToPool and WriteToBareFile begin a new file after this many blocks, to keep files small.
constexpr __int64 kBlocksPerFile = 64;

void WriteToPool(benchmark::State& state) {
  const auto bits = static_cast<SHORT>(state.range(0));
  const Floats block(bench::kBlockSamples);
  bench::FillWithNoise(block.values());
  StereoPool pool(bits);
  Check(pool.writer->OpenDevice());
  __int64 blocks = 0;
  for (auto _ : state) {
    if (++blocks > kBlocksPerFile) {
      state.PauseTiming();
      pool = StereoPool(bits);
      Check(pool.writer->OpenDevice());
      blocks = 0;
      state.ResumeTiming();
    }
    Check(pool.writer->WriteAudio(block));
  }
  CountBytes(state, bench::kBlockSamples * static_cast<std::size_t>(bits) / 8);
}
BENCHMARK(WriteToPool)->ArgName("bits")->Arg(32)->UseRealTime();

void WriteToBareFile(benchmark::State& state) {
  const std::size_t size = bench::kBlockSamples * static_cast<std::size_t>(state.range(0)) / 8;
  const std::vector<std::byte> block(size, std::byte{1});
  const TemporaryFolder folder;
  FileHandle file = BareFile(folder);
  __int64 blocks = 0;
  for (auto _ : state) {
    if (++blocks > kBlocksPerFile) {
      state.PauseTiming();
      file.Reset();
      file = BareFile(folder);
      blocks = 0;
      state.ResumeTiming();
    }
    DWORD written = 0;
    WriteFile(file.get(), block.data(), static_cast<DWORD>(size), &written, nullptr);
  }
  CountBytes(state, size);
}
BENCHMARK(WriteToBareFile)->ArgName("bits")->Arg(32)->UseRealTime();

// Returns random positions, the same for pool and file. The benchmark reads each position once
// before it measures.
std::vector<__int64> Places(__int64 frames_read) {
  std::minstd_rand random(2);
  std::uniform_int_distribution<__int64> frame(0, kMinuteFrames - frames_read);
  std::vector<__int64> places(512);
  std::ranges::generate(places, [&] { return frame(random); });
  return places;
}

// Extends the file to `size` with zeros, without writing the zeros.
void Extend(HANDLE file, __int64 size) {
  SeekTo(file, size);
  if (!SetEndOfFile(file)) throw HResultError(LastErrorResult());
}

void ReadFromPool(benchmark::State& state) {
  const auto bits = static_cast<SHORT>(state.range(0));
  const __int64 frames = state.range(1);
  const __int64 file_bytes = kMinuteFrames * kChannels * bits / 8;
  const StereoPool pool(bits);
  __int64 audio_file = 0;
  __int64 peak_file = 0;
  Check(pool.pool->GetFileHandles(&audio_file, &peak_file));
  Extend(reinterpret_cast<HANDLE>(static_cast<INT_PTR>(audio_file)), file_bytes);
  const auto pool_reader = Create<IAudioPoolReader>(CLSID_CAudioPoolReader);
  Check(pool_reader->Create(pool.pool.Get(), 0, 0, file_bytes, bits));
  const auto reader = As<IAudioReader>(pool_reader);
  const std::vector<__int64> places = Places(frames);
  const Floats block(static_cast<std::size_t>(frames * kChannels));
  for (const __int64 place : places) Check(reader->ReadAudio(place, block));
  std::size_t next = 0;
  for (auto _ : state) Check(reader->ReadAudio(places[next++ % places.size()], block));
  CountBytes(state, static_cast<std::size_t>(frames * kChannels * bits / 8));
}
BENCHMARK(ReadFromPool)
    ->ArgNames({"bits", "frames"})
    ->ArgsProduct({{32}, {64, 4096, 65536}})
    ->UseRealTime();

void ReadFromBareFile(benchmark::State& state) {
  const __int64 frame_bytes = kChannels * state.range(0) / 8;
  const __int64 frames = state.range(1);
  const TemporaryFolder folder;
  const FileHandle file = BareFile(folder);
  Extend(file.get(), kMinuteFrames * frame_bytes);
  const std::vector<__int64> places = Places(frames);
  std::vector<std::byte> block(static_cast<std::size_t>(frames * frame_bytes));
  const auto read_at = [&](__int64 place) {
    SeekTo(file.get(), place * frame_bytes);
    DWORD read = 0;
    ReadFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &read, nullptr);
  };
  for (const __int64 place : places) read_at(place);
  std::size_t next = 0;
  for (auto _ : state) read_at(places[next++ % places.size()]);
  CountBytes(state, block.size());
}
BENCHMARK(ReadFromBareFile)
    ->ArgNames({"bits", "frames"})
    ->ArgsProduct({{32}, {64, 4096, 65536}})
    ->UseRealTime();

// Measures a pool's last Release, which blocks the host's thread. The pool holds an hour of audio.
void ReleaseAnHour(benchmark::State& state) {
  const Floats block(bench::kBlockSamples);
  bench::FillWithNoise(block.values());
  for (auto _ : state) {
    StereoPool pool(16);
    Check(pool.writer->OpenDevice());
    for (__int64 done = 0; done < 60 * kMinuteFrames; done += bench::kBlockFrames) {
      Check(pool.writer->WriteAudio(block));
    }
    Check(pool.writer->CloseDevice());
    pool.writer.Reset();
    const auto begin = std::chrono::steady_clock::now();
    pool.pool.Reset();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(taken.count());
  }
}
BENCHMARK(ReleaseAnHour)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace marlinda::testing
