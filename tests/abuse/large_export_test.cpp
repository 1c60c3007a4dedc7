// WAV files at the end of what their 32-bit sizes can tell, and beyond it: every sample and every
// chunk is where it belongs, and the host knows the files that other programs cannot read. Takes
// 4.3 GB of the temporary folder, so it is no part of the tests.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "host/wave_check.h"
#include "tests/export/code_reader.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using namespace riff;

constexpr std::int64_t kLimit = std::int64_t{1} << 32;
constexpr int kFrameBytes = 4;  // 16 bits, two channels
constexpr std::size_t kHeader = 44;

Bytes Range(std::istream& file, std::int64_t begin, std::size_t count) {
  Bytes bytes(count);
  file.clear();
  file.seekg(begin);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

void ExpectFile(const std::wstring& path, std::int64_t data_bytes, const Bytes& tail) {
  const auto end = static_cast<std::int64_t>(kHeader) + data_bytes;
  const std::int64_t size = end + static_cast<std::int64_t>(tail.size());
  EXPECT_EQ(std::filesystem::file_size(path), static_cast<std::uintmax_t>(size));
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  EXPECT_EQ(Range(file, 0, kHeader),
            Text("RIFF") + U32(static_cast<std::uint64_t>(size - 8)) + Text("WAVE") +
                Chunk("fmt ", PlainFormat(1, 2, 44100, 2, 16)) + Text("data") +
                U32(static_cast<std::uint64_t>(data_bytes)));
  EXPECT_EQ(Range(file, end, tail.size() + 1), tail);
  for (std::int64_t at = 0; at < data_bytes; at += data_bytes / 64 / kFrameBytes * kFrameBytes) {
    const std::int64_t count = std::min<std::int64_t>(4096, data_bytes - at);
    EXPECT_EQ(
        Range(file, static_cast<std::int64_t>(kHeader) + at, static_cast<std::size_t>(count)),
        CodesAsPcm(static_cast<std::uint64_t>(at) / 2, static_cast<std::uint64_t>(count) / 2, 16))
        << "samples at byte " << at;
  }
  const std::int64_t frames = data_bytes / kFrameBytes;
  const auto facts = ExamineWaveFile(file);
  EXPECT_EQ(facts && HoldsFrames(*facts, frames), size - 8 < kLimit);
  EXPECT_FALSE(FitsWaveFile(frames, 2, 16)) << "the host would begin such a file";
}

TEST(LargeExport, WrapsTheSizesAndKeepsEverySampleAndChunkInItsPlace) {
  const Bytes tail = Info();
  const auto beside = static_cast<std::int64_t>(kHeader + tail.size()) - 8;
  for (const std::int64_t data : {
           kLimit - kFrameBytes - beside,  // the largest file whose sizes are all true
           kLimit - kFrameBytes,           // the file's size wraps
           kLimit + kFrameBytes,           // and the samples'
       }) {
    SCOPED_TRACE(data);
    const TemporaryFolder folder;
    const std::wstring path = folder.File(L"large.wav");
    const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    const auto source = CodeReader::Create({.channels = 2, .frames = data / kFrameBytes});
    ASSERT_EQ(filter->Initialize(Bstr(path), source.Get()), S_OK);
    const auto task = As<ICoreTask>(filter);
    ASSERT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get(), 1800));
    ExpectFile(path, data, tail);
  }
}

TEST(LargeExport, OfAWaveWriterWrapsTheSizesToo) {
  constexpr std::int64_t kData = kLimit + kFrameBytes;
  constexpr std::int64_t kBlock = 65536;
  const TemporaryFolder folder;
  const std::wstring path = folder.File(L"large.wav");
  const auto wave = Create<IWaveWriter>(CLSID_CWaveWriter);
  const auto writer = As<IAudioWriter>(wave);
  ASSERT_EQ(wave->SetTargetFile(Bstr(path)), S_OK);
  ASSERT_EQ(writer->SetFormat(44100, 2), S_OK);
  ASSERT_EQ(writer->OpenDevice(), S_OK);
  for (std::int64_t first = 0; first < kData / 2; first += kBlock) {
    const Floats block(static_cast<std::size_t>(std::min(kBlock, kData / 2 - first)));
    auto index = static_cast<std::uint64_t>(first);
    for (float& sample : block.values()) sample = SampleAt(index++, 16);
    ASSERT_EQ(writer->WriteAudio(block), S_OK);
  }
  ASSERT_EQ(writer->CloseDevice(), S_OK);
  ExpectFile(path, kData, {});
}

}  // namespace
}  // namespace marlinda::testing
