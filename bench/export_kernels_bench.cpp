// Ten minutes of stereo floats into a 16-bit WAV file: the export's kernels beside libsndfile and
// beside bare writes of as many bytes.
#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "export/wav_layout.h"
#include "export/wav_sample_encoder.h"

namespace marlinda {
namespace {

constexpr std::size_t kFrames = 10 * 60 * 44100;
constexpr std::size_t kChannels = 2;
constexpr std::size_t kFramesPerBlock = 65536;
constexpr WavFormat kFormat{44100, kChannels, 16, false};

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Unbuffered, and gone when closed.
File MakeFile() {
  File file(std::tmpfile());
  if (file) std::setvbuf(file.get(), nullptr, _IONBF, 0);
  return file;
}

bool Write(const File& file, std::span<const std::byte> bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
}

std::vector<float> Noise() {
  std::vector<float> noise(kFramesPerBlock * kChannels);
  std::uint32_t state = 1;
  for (float& sample : noise) {
    state = state * 1664525U + 1013904223U;
    sample = static_cast<float>(static_cast<std::int32_t>(state)) * 0x1p-31F;
  }
  return noise;
}

// Calls `write_block` with the frame counts of the blocks.
template <class WriteBlock>
void ForEachBlock(WriteBlock write_block) {
  for (std::size_t left = kFrames; left > 0;) {
    const std::size_t frames = std::min(left, kFramesPerBlock);
    write_block(frames);
    left -= frames;
  }
}

void Kernels(benchmark::State& state) {
  const std::vector<float> noise = Noise();
  for (auto _ : state) {
    const File file = MakeFile();
    bool written = Write(file, WavHeader(kFormat, ManyChannels::kExtensible).bytes());
    WavSampleEncoder encoder(kFormat);
    ForEachBlock([&](std::size_t frames) {
      written = written &&
                Write(file, encoder.Encode(std::span(noise).first(frames * kChannels), frames));
    });
    written = written && Write(file, WavTrailer({}, kFormat.BlockAlign()).bytes());
    if (!written) state.SkipWithError("a write failed");
  }
  state.SetItemsProcessed(state.iterations() * kFrames * kChannels);
}

void Libsndfile(benchmark::State& state) {
  const std::vector<float> noise = Noise();
  for (auto _ : state) {
    const File file = MakeFile();
    SF_INFO info = {};
    info.samplerate = kFormat.samples_per_sec;
    info.channels = kFormat.channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* const wav = sf_open_fd(fileno(file.get()), SFM_WRITE, &info, SF_FALSE);
    if (wav == nullptr) return state.SkipWithError(sf_strerror(nullptr));
    sf_command(wav, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    ForEachBlock([&](std::size_t frames) {
      sf_writef_float(wav, noise.data(), static_cast<sf_count_t>(frames));
    });
    sf_close(wav);
  }
  state.SetItemsProcessed(state.iterations() * kFrames * kChannels);
}

void BareWrite(benchmark::State& state) {
  const std::vector<char> block(kFramesPerBlock * kChannels * 2, 0x55);
  for (auto _ : state) {
    const File file = MakeFile();
    ForEachBlock([&](std::size_t frames) {
      if (!Write(file, std::as_bytes(std::span(block).first(frames * kChannels * 2)))) {
        state.SkipWithError("a write failed");
      }
    });
  }
  state.SetItemsProcessed(state.iterations() * kFrames * kChannels);
}

BENCHMARK(BareWrite)->Unit(benchmark::kMillisecond);
BENCHMARK(Kernels)->Unit(benchmark::kMillisecond);
BENCHMARK(Libsndfile)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace marlinda

BENCHMARK_MAIN();
