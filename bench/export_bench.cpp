// WAV export of ten minutes of stereo to 16 bits through COM, beside bare writes of as many bytes.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "core/handle.h"
#include "tests/export/code_reader.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

constexpr __int64 kFrames = 10 * 60 * 44100;
constexpr SHORT kChannels = 2;
constexpr std::size_t kBlockSamples = 65536 * kChannels;
constexpr std::size_t kFileBytes = std::size_t{kFrames} * kChannels * 2;

void Export(benchmark::State& state, IAudioReader* reader) {
  const TemporaryFolder folder;
  const std::wstring path = folder.File(L"out.wav");
  for (auto _ : state) {
    auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    Check(filter->Initialize(Bstr(path), reader));
    auto task = As<ICoreTask>(filter);
    Check(task->Start());
    for (VARIANT_BOOL running = VARIANT_TRUE; running != VARIANT_FALSE; Sleep(1)) {
      Check(task->QueryIsTaskRunning(&running));
    }
    if (std::filesystem::file_size(path) < kFileBytes) state.SkipWithError("the file is short");
  }
  state.SetItemsProcessed(state.iterations() * kFrames * kChannels);
}

// From a source in memory.
void ExportThroughCom(benchmark::State& state) {
  std::vector<float> noise(kBlockSamples);
  for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = SampleAt(i, 16);
  // What a reader costs at least: a copy.
  const auto copy_noise = [&](__int64, std::span<float> samples) {
    std::copy_n(noise.begin(), samples.size(), samples.begin());
    return E_FAIL;  // the block is complete; keeps the reader from computing its own samples
  };
  const auto reader =
      CodeReader::Create({.channels = kChannels, .frames = kFrames, .before_read = copy_noise});
  Export(state, reader.Get());
}

ComPtr<IAudioReader> Silence(__int64 frames) {
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(frames, 44100, kChannels));
  return As<IAudioReader>(silence);
}

// From a document of a thousand pieces.
void ExportDocument(benchmark::State& state) {
  constexpr __int64 kPieces = 1000;
  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  const auto source = Silence(kFrames / kPieces);
  for (__int64 i = 0; i < kPieces; ++i) {
    Check(document->AppendSegment(source.Get(), 0, kFrames / kPieces));
  }
  Export(state, As<IAudioReader>(document).Get());
}

// What an interface adds to a small piece of work.
constexpr std::size_t kSmallBlock = 64 * kChannels;

void ReadSilenceThroughCom(benchmark::State& state) {
  const auto source = Silence(kFrames);
  const Floats block(kSmallBlock);
  for (auto _ : state) benchmark::DoNotOptimize(source->ReadAudio(0, block));
}

void FillSilence(benchmark::State& state) {
  std::vector<float> block(kSmallBlock);
  for (auto _ : state) {
    std::ranges::fill(block, 0.0F);
    benchmark::DoNotOptimize(block.data());
    benchmark::ClobberMemory();
  }
}

void BareWriteFile(benchmark::State& state) {
  const TemporaryFolder folder;
  const std::wstring path = folder.File(L"out.raw");
  const std::vector<char> block(kBlockSamples * 2, 0x55);
  for (auto _ : state) {
    const FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    for (std::size_t left = kFileBytes; left > 0;) {
      const auto size = static_cast<DWORD>(std::min(left, block.size()));
      DWORD written = 0;
      if (!WriteFile(file.get(), block.data(), size, &written, nullptr) || written != size) {
        state.SkipWithError("a write failed");
        break;
      }
      left -= size;
    }
  }
  state.SetItemsProcessed(state.iterations() * kFrames * kChannels);
}

BENCHMARK(BareWriteFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ExportThroughCom)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ExportDocument)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ReadSilenceThroughCom);
BENCHMARK(FillSilence);

}  // namespace
}  // namespace marlinda::testing
