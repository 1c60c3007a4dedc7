// Measures the Ogg import through COM, and the codec library alone with the same file and build.
// The difference is the cost of the task, the blocks and the conversion to floats.
#include <benchmark/benchmark.h>
#include <vorbis/vorbisfile.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/ogg_music.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

constexpr long kSamplesPerSec = 44100;
constexpr int kChannels = 2;
constexpr std::int64_t kFrames = 60 * kSamplesPerSec;

// The input of all benchmarks, encoded once.
const std::wstring& MusicFile() {
  static const TemporaryFolder folder;
  static const std::wstring path = [] {
    std::wstring name = folder.File(L"music.ogg");
    const auto music = EncodeMusic(kChannels, kSamplesPerSec, 0.4F, kFrames);
    std::ofstream(std::filesystem::path(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(music.data()),
               static_cast<std::streamsize>(music.size()));
    return name;
  }();
  return path;
}

// The file's length as the library reports it.
std::int64_t MusicFrames() {
  static const std::int64_t frames = [] {
    OggVorbis_File file;
    if (ov_fopen(std::filesystem::path(MusicFile()).string().c_str(), &file) != 0)
      return ogg_int64_t{0};
    const ogg_int64_t total = ov_pcm_total(&file, -1);
    ov_clear(&file);
    return total;
  }();
  return frames;
}

void Report(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * MusicFrames() * kChannels);
  state.counters["times_real_time"] =
      benchmark::Counter(static_cast<double>(MusicFrames()) / kSamplesPerSec,
                         benchmark::Counter::kIsIterationInvariantRate);
}

void LibraryDecode(benchmark::State& state) {
  const std::string path = std::filesystem::path(MusicFile()).string();
  std::vector<char> buffer(32768);
  for (auto _ : state) {
    OggVorbis_File file;
    if (ov_fopen(path.c_str(), &file) != 0) return state.SkipWithError("the file does not open");
    std::int64_t bytes = 0;
    int link = 0;
    while (const long count = ov_read(&file, buffer.data(), 32768, 0, 2, 1, &link)) bytes += count;
    ov_clear(&file);
    if (bytes != MusicFrames() * kChannels * 2) state.SkipWithError("the file is short");
  }
  Report(state);
}

void Import(BSTR path, IAudioWriter* writer) {
  const auto filter = Create<IImportFilter>(CLSID_COggImport);
  const auto task = As<ICoreTask>(filter);
  Check(filter->Initialize(path, writer));
  Check(task->Start());
  for (VARIANT_BOOL running = VARIANT_TRUE; running != VARIANT_FALSE; Sleep(1)) {
    Check(task->QueryIsTaskRunning(&running));
  }
}

void ImportThroughCom(benchmark::State& state) {
  const Bstr path(MusicFile());
  const auto writer = MakeObject<RecordingWriter>();
  writer->keep_samples = false;
  std::int64_t samples = 0;
  writer->on_write = [&](SAFEARRAY* array) { samples += array->rgsabound[0].cElements; };
  for (auto _ : state) {
    samples = 0;
    Import(path, writer.Get());
    if (samples != MusicFrames() * kChannels) state.SkipWithError("samples are missing");
  }
  Report(state);
}

// Imports into a pool with the bit depth of the decoder.
void ImportIntoPool(benchmark::State& state) {
  const Bstr path(MusicFile());
  for (auto _ : state) {
    const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    Check(pool->SetBitDepth(16, 0));
    Import(path, As<IAudioWriter>(pool).Get());
    ComPtr<IAudioReader> take;
    __int64 frames = 0;
    Check(pool->CreateLastReader(take.GetAddressOf()));
    Check(take->GetSampleCount(&frames));
    if (frames != MusicFrames()) state.SkipWithError("samples are missing");
  }
  Report(state);
}

BENCHMARK(LibraryDecode)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ImportThroughCom)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ImportIntoPool)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace marlinda::testing
