#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "export/wav_file.h"
#include "tests/export/riff_builder.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::ElementsAre;

Bytes Format(int channels, int bits) {
  return PlainFormat(bits == 32 ? 3 : 1, channels, 44100, bits / 8, bits);
}

class WaveWriter : public ::testing::Test {
 protected:
  WaveWriter() { EXPECT_EQ(writer->SetTargetFile(Bstr(path)), S_OK); }

  Bytes Record(SHORT channels, SHORT bits, const std::vector<float>& samples) {
    EXPECT_EQ(writer->SetResolution(bits), S_OK);
    EXPECT_EQ(audio->SetFormat(44100, channels), S_OK);
    EXPECT_EQ(audio->OpenDevice(), S_OK);
    EXPECT_EQ(audio->WriteAudio(Floats(samples)), S_OK);
    EXPECT_EQ(audio->CloseDevice(), S_OK);
    return File();
  }
  Bytes File() const { return ReadFileBytes(path); }

  TemporaryFolder folder;
  std::wstring path = folder.File(L"out.wav");
  ComPtr<IWaveWriter> writer = Create<IWaveWriter>(CLSID_CWaveWriter);
  ComPtr<IAudioWriter> audio = As<IAudioWriter>(writer);
  ComPtr<RecordingWriter> next = MakeObject<RecordingWriter>();
};

TEST_F(WaveWriter, WritesEveryWidthWithAPlainHeaderWhateverTheChannels) {
  const std::pair<SHORT, Bytes> widths[] = {
      {8, Hex("80FF01C041A0")},
      {16, Hex("0000FF7F0180004001C00020")},
      {24, Hex("0000000000800000800000400000C0000020")},
      {32, F32(0) + F32(1) + F32(-1) + F32(0.5F) + F32(-0.5F) + F32(0.25F)},
  };
  for (const SHORT channels : {1, 2, 6}) {
    for (const auto& [bits, codes] : widths) {
      EXPECT_EQ(Record(channels, bits, {0.0F, 1.0F, -1.0F, 0.5F, -0.5F, 0.25F}),
                Wav(Format(channels, bits), codes, {}))
          << channels << ' ' << bits;
    }
  }
}

TEST_F(WaveWriter, KeepsWholeFramesOfFixedPointAndEveryFloatOfAnyFormat) {
  const std::tuple<SHORT, SHORT, std::size_t, std::size_t> cases[] = {
      // Channels, bits, samples, and bytes of data: padded to four.
      {1, 16, 1, 4},  {2, 16, 5, 8},  {2, 32, 5, 20}, {-2, 16, 8, 0},
      {0, 32, 8, 32}, {2, -16, 8, 0}, {2, 12, 8, 8},  {2, 4096, 8, 4096}};
  for (const auto& [channels, bits, samples, bytes] : cases) {
    EXPECT_EQ(Record(channels, bits, std::vector<float>(samples)).size(), 44 + bytes)
        << channels << ' ' << bits;
  }
}

TEST_F(WaveWriter, PassesEveryCallOnFirstAndWritesWhatTheNextWriterLeft) {
  next->result = E_FAIL;  // is ignored
  next->on_write = [&](SAFEARRAY* array) { static_cast<float*>(array->pvData)[0] = 0.0F; };
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  EXPECT_EQ(Record(1, 32, {0.5F, 0.25F}), Wav(Format(1, 32), F32(0) + F32(0.25F), {}));
  LONG ready = 42;
  EXPECT_EQ(audio->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 1);
  EXPECT_THAT(next->calls,
              ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "CloseDevice", "QueryIsReady"));
  EXPECT_TRUE(next->samples_per_sec == 44100 && next->channels == 1);
  EXPECT_THAT(next->samples, ElementsAre(0.5F, 0.25F));
  // Also without a file.
  EXPECT_EQ(writer->SetTargetFile(Bstr(folder.File(L"none\\out.wav"))), S_OK);
  EXPECT_EQ(audio->OpenDevice(), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(audio->WriteAudio(Floats(4)), S_OK);
  EXPECT_EQ(next->blocks, 2U);
}

TEST_F(WaveWriter, EndsCallsThatComeBackAlongARing) {
  // Itself, which leaves no reference behind.
  const ULONG before = ReferenceCount(writer.Get());
  EXPECT_EQ(writer->SetWriteThrough(audio.Get()), S_OK);
  EXPECT_EQ(ReferenceCount(writer.Get()), before);
  const auto second = Create<IWaveWriter>(CLSID_CWaveWriter);
  const std::wstring second_path = folder.File(L"second.wav");
  EXPECT_EQ(second->SetTargetFile(Bstr(second_path)), S_OK);
  EXPECT_EQ(second->SetResolution(32), S_OK);
  EXPECT_EQ(writer->SetWriteThrough(As<IAudioWriter>(second).Get()), S_OK);
  EXPECT_EQ(second->SetWriteThrough(audio.Get()), S_OK);
  const Bytes expected = Wav(Format(1, 32), F32(0.5F) + F32(1), {});
  EXPECT_EQ(Record(1, 32, {0.5F, 1}), expected);
  EXPECT_EQ(Bytes(ReadFileBytes(second_path)), expected);
  EXPECT_EQ(second->SetWriteThrough(nullptr), S_OK);
  EXPECT_EQ(ReferenceCount(writer.Get()), before);
}

TEST_F(WaveWriter, GoesOnWithItsFileWhenOpenedTwiceAndFinishesItForAnother) {
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(audio->WriteAudio(Floats(2)), S_OK);
  EXPECT_EQ(audio->OpenDevice(), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));  // its own
  EXPECT_EQ(audio->WriteAudio(Floats(2)), S_OK);
  const std::wstring other = folder.File(L"other.wav");
  EXPECT_EQ(writer->SetTargetFile(Bstr(other)), S_OK);
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(File(), Wav(Format(2, 16), Bytes(8), {}));
  // Without CloseDevice the sizes stay 0.
  EXPECT_EQ(audio->WriteAudio(Floats(2)), S_OK);
  audio.Reset();
  writer.Reset();
  EXPECT_EQ(Bytes(ReadFileBytes(other)), Text("RIFF") + U32(0) + Text("WAVE") +
                                             Chunk("fmt ", Format(2, 16)) + Text("data") + U32(0) +
                                             Bytes(4));
}

TEST(WavFile, WrapsSizesPastFourGibibytesAndOverwritesNothing) {
  constexpr std::uint64_t kSamples = (std::uint64_t{5} << 30) + 3;
  constexpr std::uint64_t kPadded = kSamples + 1;
  const TemporaryFolder folder;
  HANDLE raw = CreateFileW(folder.File(L"large.wav").c_str(), GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW, 0, nullptr);
  WavFile file;
  file.Attach(FileHandle(raw));
  file.Begin({44100, 1, 8, false}, ManyChannels::kPlain);
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
    bytes.resize(count);
    return bytes;
  };
  EXPECT_EQ(at(0, 44), Text("RIFF") + U32(36 + kPadded + 4) + Text("WAVE") +
                           Chunk("fmt ", PlainFormat(1, 1, 44100, 1, 8)) + Text("data") +
                           U32(kPadded));
  EXPECT_EQ(at(44 + kPadded, 8), Text("tail"));
}

}  // namespace
}  // namespace marlinda::testing
