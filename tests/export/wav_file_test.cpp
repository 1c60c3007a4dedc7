// A WAV file past 4 GiB, and one without its end, as they lie on disk.
#include "export/wav_file.h"

#include <gtest/gtest.h>

#include "tests/export/riff_builder.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using namespace riff;

TEST(WavFile, WrapsSizesPastFourGibibytesAndOverwritesNothing) {
  constexpr std::uint64_t kSamples = (std::uint64_t{5} << 30) + 3;
  constexpr std::uint64_t kPadded = kSamples + 1;
  const TemporaryFolder folder;
  HANDLE raw = CreateFileW(folder.File(L"large.wav").c_str(), GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW, 0, nullptr);
  WavFile file;
  file.Attach(FileHandle(raw));
  const WavFormat format{44100, 1, 8, false};
  file.Begin(format, ManyChannels::kPlain);
  // As if so many samples had been written: the file is sparse.
  LARGE_INTEGER end;
  end.QuadPart = static_cast<LONGLONG>(44 + kSamples);
  ASSERT_TRUE(SetFilePointerEx(raw, end, nullptr, FILE_BEGIN));
  file.Finish(std::as_bytes(std::span("tail", 4)));

  const FileHandle read(CreateFileW(folder.File(L"large.wav").c_str(), GENERIC_READ,
                                    FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  const auto at = [&](std::uint64_t offset, DWORD count) {
    Bytes bytes(count);
    OVERLAPPED where = {};
    where.Offset = static_cast<DWORD>(offset);
    where.OffsetHigh = static_cast<DWORD>(offset >> 32);
    EXPECT_TRUE(ReadFile(read.get(), bytes.data(), count, &count, &where));
    return bytes;
  };
  EXPECT_EQ(at(0, 44), Text("RIFF") + U32(36 + kPadded + 4) + Text("WAVE") +
                           Chunk("fmt ", PlainFormat(1, 1, 44100, 1, 8)) + Text("data") +
                           U32(kPadded));
  EXPECT_EQ(at(44 + kPadded, 4), Text("tail"));
  LARGE_INTEGER size;
  ASSERT_TRUE(GetFileSizeEx(read.get(), &size));
  EXPECT_EQ(static_cast<std::uint64_t>(size.QuadPart), 44 + kPadded + 4);
}

}  // namespace
}  // namespace marlinda::testing
