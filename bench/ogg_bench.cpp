// The Ogg import through COM, beside a plain decode of the same file by the same build of the codec
// library: what the task, the conversion to floats and the blocks cost on top.
#include <benchmark/benchmark.h>
#include <vorbis/vorbisenc.h>
#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

constexpr long kSamplesPerSec = 44100;
constexpr int kChannels = 2;
constexpr std::int64_t kFrames = 60 * kSamplesPerSec;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

void WritePage(std::FILE* file, const ogg_page& page) {
  std::fwrite(page.header, 1, static_cast<std::size_t>(page.header_len), file);
  std::fwrite(page.body, 1, static_cast<std::size_t>(page.body_len), file);
}

// Chords with noise and pulses, at the quality most music has.
void EncodeMusic(const std::string& path) {
  const File file(std::fopen(path.c_str(), "wb"), std::fclose);
  vorbis_info info;
  vorbis_comment comment;
  vorbis_dsp_state dsp;
  vorbis_block block;
  ogg_stream_state stream;
  ogg_page page;
  ogg_packet packet;
  vorbis_info_init(&info);
  vorbis_encode_init_vbr(&info, kChannels, kSamplesPerSec, 0.4F);
  vorbis_comment_init(&comment);
  vorbis_analysis_init(&dsp, &info);
  vorbis_block_init(&dsp, &block);
  ogg_stream_init(&stream, 1);
  ogg_packet headers[3];
  vorbis_analysis_headerout(&dsp, &comment, &headers[0], &headers[1], &headers[2]);
  for (ogg_packet& header : headers) ogg_stream_packetin(&stream, &header);
  while (ogg_stream_flush(&stream, &page) != 0) WritePage(file.get(), page);

  std::minstd_rand random(1);
  std::uniform_real_distribution<float> noise(-0.1F, 0.1F);
  constexpr int kBlockFrames = 4096;
  // A block without frames ends the stream.
  int count = -1;
  for (std::int64_t done = 0; count != 0; done += count) {
    count = static_cast<int>(std::min<std::int64_t>(kBlockFrames, kFrames - done));
    float** const input = vorbis_analysis_buffer(&dsp, kBlockFrames);
    for (int i = 0; i < count; ++i) {
      const double seconds = static_cast<double>(done + i) / kSamplesPerSec;
      const double fade = std::exp(-8.0 * std::fmod(seconds, 0.5));
      for (int channel = 0; channel < kChannels; ++channel) {
        const double tone = std::sin(seconds * 2764.6 * (channel + 1)) + std::sin(seconds * 4147.0);
        input[channel][i] = static_cast<float>(0.4 * fade * tone) + noise(random);
      }
    }
    vorbis_analysis_wrote(&dsp, count);
    while (vorbis_analysis_blockout(&dsp, &block) == 1) {
      vorbis_analysis(&block, nullptr);
      vorbis_bitrate_addblock(&block);
      while (vorbis_bitrate_flushpacket(&dsp, &packet) != 0) ogg_stream_packetin(&stream, &packet);
      while (ogg_stream_pageout(&stream, &page) != 0) WritePage(file.get(), page);
    }
  }
  while (ogg_stream_flush(&stream, &page) != 0) WritePage(file.get(), page);
  ogg_stream_clear(&stream);
  vorbis_block_clear(&block);
  vorbis_dsp_clear(&dsp);
  vorbis_comment_clear(&comment);
  vorbis_info_clear(&info);
}

// The file that all benchmarks read, encoded once.
const std::wstring& MusicFile() {
  static const TemporaryFolder folder;
  static const std::wstring path = [] {
    std::wstring name = folder.File(L"music.ogg");
    EncodeMusic(std::filesystem::path(name).string());
    return name;
  }();
  return path;
}

// Its length, as the library reads it.
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

// The whole way of a file into a pool of the width it was decoded to.
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
