#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/export/riff_builder.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::ElementsAre;

constexpr HRESULT kSharingViolation = static_cast<HRESULT>(0x80070020);
constexpr HRESULT kPathNotFound = static_cast<HRESULT>(0x80070003);

Bytes Format(int channels, int bits, int rate = 44100) {
  return PlainFormat(bits == 32 ? 3 : 1, channels, rate, bits / 8, bits);
}

class WaveWriter : public ::testing::Test {
 protected:
  WaveWriter() { EXPECT_EQ(writer->SetTargetFile(Bstr(path)), S_OK); }

  void Configure(SHORT channels, SHORT bits) {
    EXPECT_EQ(writer->SetResolution(bits), S_OK);
    EXPECT_EQ(audio->SetFormat(44100, channels), S_OK);
  }
  Bytes Record(std::span<const float> samples) {
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
};

TEST_F(WaveWriter, WritesEveryWidthWithAPlainHeaderWhateverTheChannels) {
  const std::vector<float> samples = {0.0F, 1.0F, -1.0F, 0.5F, -0.5F, 0.25F};
  const std::pair<int, Bytes> widths[] = {
      {8, Hex("80FF01C041A0")},
      {16, Hex("0000FF7F0180004001C00020")},
      {24, Hex("0000000000800000800000400000C0000020")},
      {32, F32(0) + F32(1) + F32(-1) + F32(0.5F) + F32(-0.5F) + F32(0.25F)},
  };
  for (const SHORT channels : {1, 2, 3, 6}) {
    for (const auto& [bits, codes] : widths) {
      Configure(channels, static_cast<SHORT>(bits));
      EXPECT_EQ(Record(samples), Wav(Format(channels, bits), codes, {})) << channels << ' ' << bits;
    }
  }
}

TEST_F(WaveWriter, AppendsBlocksAndPadsTheDataToFourBytes) {
  Configure(1, 16);
  EXPECT_EQ(Record(std::vector<float>{0.0F}), Wav(Format(1, 16), Bytes{0, 0}, {}));

  Configure(2, 24);
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  for (int block = 0; block < 3; ++block) EXPECT_EQ(audio->WriteAudio(Floats(2000)), S_OK);
  EXPECT_EQ(audio->WriteAudio(Floats(0)), S_OK);
  EXPECT_EQ(audio->CloseDevice(), S_OK);
  EXPECT_EQ(File(), Wav(Format(2, 24), Bytes(18000), {}));
}

TEST_F(WaveWriter, KeepsWholeFramesOfFixedPointAndEveryFloatOfAnyFormat) {
  Configure(2, 16);
  EXPECT_EQ(Record(std::vector<float>(5)), Wav(Format(2, 16), Bytes(8), {}));
  Configure(2, 32);
  EXPECT_EQ(Record(std::vector<float>(5)), Wav(Format(2, 32), Bytes(20), {}));
  for (const SHORT channels : {0, -2}) {
    Configure(channels, 16);
    EXPECT_EQ(Record(std::vector<float>(8)).size(), 44U) << channels;
  }
  Configure(0, 32);
  EXPECT_EQ(Record(std::vector<float>(8)).size(), 44U + 32);
  for (const SHORT bits : {0, -16, 12, 4096, 32767}) {
    Configure(2, bits);
    EXPECT_EQ(Record(std::vector<float>(8)).size(), 44U + std::max(0, bits / 8 * 8)) << bits;
  }
}

TEST_F(WaveWriter, PassesEveryCallOnFirstAndWritesWhatTheNextWriterLeft) {
  LONG ready = 42;
  EXPECT_EQ(audio->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 42) << "there is no next writer";
  const auto next = MakeObject<RecordingWriter>();
  next->result = E_FAIL;  // is ignored
  next->on_write = [&](SAFEARRAY* array) { static_cast<float*>(array->pvData)[0] = 0.0F; };
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  Configure(1, 32);
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(audio->WriteAudio(Floats(std::vector<float>{0.5F, 0.25F})), S_OK);
  EXPECT_EQ(audio->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 1);
  EXPECT_EQ(audio->CloseDevice(), S_OK);
  EXPECT_THAT(next->calls,
              ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "QueryIsReady", "CloseDevice"));
  EXPECT_EQ(next->samples_per_sec, 44100);
  EXPECT_EQ(next->channels, 1);
  EXPECT_THAT(next->samples, ElementsAre(0.5F, 0.25F));
  EXPECT_EQ(File(), Wav(Format(1, 32), F32(0) + F32(0.25F), {}));
}

TEST_F(WaveWriter, HoldsTheNextWriterUntilItIsReplacedOrTheObjectGoes) {
  const auto next = MakeObject<RecordingWriter>();
  const ULONG before = ReferenceCount(next.Get());
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  EXPECT_EQ(ReferenceCount(next.Get()), before + 1);
  EXPECT_EQ(writer->SetWriteThrough(nullptr), S_OK);
  EXPECT_EQ(ReferenceCount(next.Get()), before);
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  audio.Reset();
  writer.Reset();
  EXPECT_EQ(ReferenceCount(next.Get()), before);
}

TEST_F(WaveWriter, EndsCallsThatComeBackAlongARing) {
  // Itself, which also leaves no reference behind.
  const ULONG before = ReferenceCount(writer.Get());
  EXPECT_EQ(writer->SetWriteThrough(audio.Get()), S_OK);
  EXPECT_EQ(ReferenceCount(writer.Get()), before);
  Configure(1, 32);
  EXPECT_EQ(Record(std::vector<float>{1}), Wav(Format(1, 32), F32(1), {}));

  const auto second = Create<IWaveWriter>(CLSID_CWaveWriter);
  const std::wstring second_path = folder.File(L"second.wav");
  EXPECT_EQ(second->SetTargetFile(Bstr(second_path)), S_OK);
  EXPECT_EQ(second->SetResolution(32), S_OK);
  EXPECT_EQ(writer->SetWriteThrough(As<IAudioWriter>(second).Get()), S_OK);
  EXPECT_EQ(second->SetWriteThrough(audio.Get()), S_OK);
  Configure(1, 32);
  const Bytes expected = Wav(Format(1, 32), F32(0.5F) + F32(1), {});
  EXPECT_EQ(Record(std::vector<float>{0.5F, 1}), expected);
  EXPECT_EQ(Bytes(ReadFileBytes(second_path)), expected);
  LONG ready = 42;
  EXPECT_EQ(audio->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 42);
  EXPECT_EQ(second->SetWriteThrough(nullptr), S_OK);
}

TEST_F(WaveWriter, PassesOnAnArrayThatHoldsNoFloatsBeforeItRefusesIt) {
  const auto next = MakeObject<RecordingWriter>();
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(audio->WriteAudio(nullptr), E_INVALIDARG);
  EXPECT_EQ(audio->WriteAudio(ForeignArray(VT_R8)), E_INVALIDARG);
  EXPECT_EQ(audio->WriteAudio(ForeignArray(VT_R4, 2)), E_INVALIDARG);
  EXPECT_EQ(next->blocks, 3U);
  EXPECT_EQ(audio->WriteAudio(Floats(4)), S_OK);
  EXPECT_EQ(audio->CloseDevice(), S_OK);
  EXPECT_EQ(File(), Wav(Format(2, 16), Bytes(8), {}));
}

TEST_F(WaveWriter, ReportsAFileThatCannotBeMadeAfterOpeningTheNextWriter) {
  const auto next = MakeObject<RecordingWriter>();
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  EXPECT_EQ(writer->SetTargetFile(Bstr(folder.File(L"none\\out.wav"))), S_OK);
  EXPECT_EQ(audio->OpenDevice(), kPathNotFound);
  // Without a file the next writer is served alone.
  EXPECT_EQ(audio->WriteAudio(Floats(4)), S_OK);
  EXPECT_EQ(audio->CloseDevice(), S_OK);
  EXPECT_THAT(next->calls, ElementsAre("OpenDevice", "WriteAudio", "CloseDevice"));
}

TEST_F(WaveWriter, GoesOnWithItsFileWhenOpenedTwiceAndFinishesItForAnother) {
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(audio->WriteAudio(Floats(2)), S_OK);
  EXPECT_EQ(audio->OpenDevice(), kSharingViolation);  // its own
  EXPECT_EQ(audio->WriteAudio(Floats(2)), S_OK);
  const std::wstring other = folder.File(L"other.wav");
  EXPECT_EQ(writer->SetTargetFile(Bstr(other)), S_OK);
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(File(), Wav(Format(2, 16), Bytes(8), {}));
  EXPECT_EQ(audio->CloseDevice(), S_OK);
  EXPECT_EQ(Bytes(ReadFileBytes(other)), Wav(Format(2, 16), {}, {}));
}

TEST_F(WaveWriter, LeavesTheSizesAtZeroWhenReleasedWithoutCloseDevice) {
  EXPECT_EQ(audio->OpenDevice(), S_OK);
  EXPECT_EQ(audio->WriteAudio(Floats(2)), S_OK);
  audio.Reset();
  writer.Reset();
  EXPECT_EQ(File(), Text("RIFF") + U32(0) + Text("WAVE") + Chunk("fmt ", Format(2, 16)) +
                        Text("data") + U32(0) + Bytes(4));
}

}  // namespace
}  // namespace marlinda::testing
