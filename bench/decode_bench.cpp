// Measures the Ogg Vorbis decoder without task and writer, and the codec library alone.
// Both use the same build of the library.
#include <benchmark/benchmark.h>
#include <vorbis/vorbisfile.h>

#include <cstdint>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

#include "bench/ogg_music.h"
#include "import/vorbis_stream.h"

namespace marlinda::testing {
namespace {

constexpr long kSamplesPerSec = 44100;
constexpr std::int64_t kFrames = 60 * kSamplesPerSec;
constexpr std::size_t kBlockSamples = 16384;

// Returns a new file each time, because the decoder closes it.
FilePointer MusicFile() {
  static const std::vector<unsigned char> music = EncodeMusic(2, kSamplesPerSec, 0.4F, kFrames);
  FilePointer file(std::tmpfile());
  if (file != nullptr) {
    std::fwrite(music.data(), 1, music.size(), file.get());
    std::rewind(file.get());
  }
  return file;
}

void LibraryDecode(benchmark::State& state) {
  std::vector<char> buffer(kBlockSamples * 2);
  for (auto _ : state) {
    state.PauseTiming();
    std::FILE* const opened = MusicFile().release();
    state.ResumeTiming();
    OggVorbis_File file;
    if (ov_open(opened, &file, nullptr, 0) != 0) return state.SkipWithError("the file is not read");
    std::int64_t bytes = 0;
    int link = 0;
    const int size = static_cast<int>(buffer.size());
    while (const long count = ov_read(&file, buffer.data(), size, 0, 2, 1, &link)) bytes += count;
    ov_clear(&file);
    if (bytes != kFrames * 4) state.SkipWithError("samples are missing");
  }
}

// The argument is the number of threads. 0 means one thread for each core.
void Decode(benchmark::State& state) {
  const auto given = static_cast<unsigned>(state.range(0));
  const unsigned threads = given != 0 ? given : std::thread::hardware_concurrency();
  std::vector<std::int16_t> buffer(kBlockSamples);
  for (auto _ : state) {
    state.PauseTiming();
    FilePointer file = MusicFile();
    state.ResumeTiming();
    auto stream = VorbisStream::Open(std::move(file), threads);
    if (stream == nullptr) return state.SkipWithError("the file is not read");
    std::int64_t samples = 0;
    while (const std::size_t count = stream->Read(buffer)) {
      samples += static_cast<std::int64_t>(count);
    }
    stream.reset();
    if (samples != kFrames * 2) state.SkipWithError("samples are missing");
  }
}

BENCHMARK(LibraryDecode)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Decode)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Arg(0)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace marlinda::testing

BENCHMARK_MAIN();
