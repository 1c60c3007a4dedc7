// Measures two libraries that convert samples like the engine: libsndfile with memory files, and
// libswresample.
#include <benchmark/benchmark.h>
#include <sndfile.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/bench_support.h"

namespace marlinda {
namespace {

using namespace bench;

constexpr std::int64_t kInCache = 16'384;
constexpr int kSamplesPerSec = 44100;

// A raw file in memory.
struct MemoryFile {
  std::vector<char> bytes;
  sf_count_t position = 0;

  static MemoryFile& From(void* user) { return *static_cast<MemoryFile*>(user); }
  static sf_count_t Length(void* user) { return std::ssize(From(user).bytes); }
  static sf_count_t Tell(void* user) { return From(user).position; }
  static sf_count_t Seek(sf_count_t offset, int whence, void* user) {
    MemoryFile& file = From(user);
    const sf_count_t base = whence == SEEK_CUR   ? file.position
                            : whence == SEEK_END ? Length(user)
                                                 : 0;
    return file.position = base + offset;
  }
  static sf_count_t Read(void* to, sf_count_t count, void* user) {
    MemoryFile& file = From(user);
    count = std::min(count, Length(user) - file.position);
    std::memcpy(to, file.bytes.data() + file.position, static_cast<std::size_t>(count));
    file.position += count;
    return count;
  }
  static sf_count_t Write(const void* from, sf_count_t count, void* user) {
    MemoryFile& file = From(user);
    count = std::min(count, Length(user) - file.position);
    std::memcpy(file.bytes.data() + file.position, from, static_cast<std::size_t>(count));
    file.position += count;
    return count;
  }
};

int SndfileFormat(std::int64_t bits) {
  switch (bits) {
    case 16:
      return SF_FORMAT_RAW | SF_FORMAT_PCM_16;
    case 24:
      return SF_FORMAT_RAW | SF_FORMAT_PCM_24;
    default:
      return SF_FORMAT_RAW | SF_FORMAT_PCM_32;
  }
}

using Sndfile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

Sndfile Open(MemoryFile& file, int mode, std::int64_t bits) {
  static SF_VIRTUAL_IO io = {MemoryFile::Length, MemoryFile::Seek, MemoryFile::Read,
                             MemoryFile::Write, MemoryFile::Tell};
  SF_INFO info = {};
  info.samplerate = kSamplesPerSec;
  info.channels = kStereo;
  info.format = SndfileFormat(bits);
  Sndfile opened(sf_open_virtual(&io, mode, &info, &file), sf_close);
  // Let libsndfile clip, as our converters do.
  if (opened) sf_command(opened.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE);
  return opened;
}

void SndfileFromFloat(benchmark::State& state) {
  const std::vector<float> source = Noise(static_cast<std::size_t>(state.range(1)));
  MemoryFile memory{
      std::vector<char>(source.size() * static_cast<std::size_t>(state.range(0)) / 8)};
  const Sndfile file = Open(memory, SFM_WRITE, state.range(0));
  for (auto _ : state) {
    memory.position = 0;
    const CountInstructions counted;
    const sf_count_t done = sf_write_float(file.get(), source.data(), std::ssize(source));
    if (done != std::ssize(source)) return state.SkipWithError(sf_strerror(file.get()));
    benchmark::ClobberMemory();
  }
  CountSamples(state, source.size());
}
BENCHMARK(SndfileFromFloat)->ArgNames({"bits", "samples"})->ArgsProduct({{16, 24, 32}, {kInCache}});

void SndfileToFloat(benchmark::State& state) {
  std::vector<float> target(static_cast<std::size_t>(state.range(1)));
  MemoryFile memory{
      std::vector<char>(target.size() * static_cast<std::size_t>(state.range(0)) / 8, 0x35)};
  const Sndfile file = Open(memory, SFM_READ, state.range(0));
  for (auto _ : state) {
    sf_seek(file.get(), 0, SEEK_SET);
    const CountInstructions counted;
    const sf_count_t done = sf_read_float(file.get(), target.data(), std::ssize(target));
    if (done != std::ssize(target)) return state.SkipWithError(sf_strerror(file.get()));
    benchmark::ClobberMemory();
  }
  CountSamples(state, target.size());
}
BENCHMARK(SndfileToFloat)->ArgNames({"bits", "samples"})->ArgsProduct({{16, 24, 32}, {kInCache}});

struct FreeResampler {
  void operator()(SwrContext* context) const { swr_free(&context); }
};

void Resample(benchmark::State& state, AVSampleFormat from, AVSampleFormat to) {
  AVChannelLayout stereo = {};
  av_channel_layout_default(&stereo, kStereo);
  SwrContext* made = nullptr;
  swr_alloc_set_opts2(&made, &stereo, to, kSamplesPerSec, &stereo, from, kSamplesPerSec, 0,
                      nullptr);
  const std::unique_ptr<SwrContext, FreeResampler> context(made);
  if (swr_init(context.get()) < 0) return state.SkipWithError("no such conversion");
  const auto samples = static_cast<std::size_t>(state.range(1));
  const std::vector<float> noise = Noise(samples);
  std::vector<std::uint8_t> source(samples * sizeof(float));
  std::memcpy(source.data(), noise.data(), source.size());
  std::vector<std::uint8_t> target(samples * sizeof(float));
  const auto frames = static_cast<int>(samples / kStereo);
  for (auto _ : state) {
    const CountInstructions counted;
    const std::uint8_t* in = source.data();
    std::uint8_t* out = target.data();
    if (swr_convert(context.get(), &out, frames, &in, frames) != frames) {
      return state.SkipWithError("the conversion is short");
    }
    benchmark::ClobberMemory();
  }
  CountSamples(state, samples);
}

AVSampleFormat ResampleFormat(std::int64_t bits) {
  return bits == 16 ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_S32;
}

void SwresampleToFloat(benchmark::State& state) {
  Resample(state, ResampleFormat(state.range(0)), AV_SAMPLE_FMT_FLT);
}
BENCHMARK(SwresampleToFloat)->ArgNames({"bits", "samples"})->ArgsProduct({{16, 32}, {kInCache}});

}  // namespace
}  // namespace marlinda
