// Tests the WAV files of the export filter and the wave writer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/export/code_reader.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::ElementsAre;

constexpr HRESULT kPathNotFound = HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
constexpr HRESULT kSharingViolation = HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);

// An export filter and the file it writes.
class Export {
 public:
  explicit Export(ComPtr<IAudioReader> reader, int bits = 16) {
    EXPECT_EQ(filter->Initialize(Bstr(path), reader.Get()), S_OK);
    EXPECT_EQ(filter->SetBitsPerSample(static_cast<SHORT>(bits)), S_OK);
  }

  Bytes Run() {
    EXPECT_EQ(task->Start(), S_OK);
    EXPECT_TRUE(WaitForTask(task.Get()));
    return ReadFileBytes(path);
  }
  float Progress() const {
    float progress = -1;
    return SUCCEEDED(task->GetProgress(&progress)) ? progress : -1;
  }

  TemporaryFolder folder;
  std::wstring path = folder.File(L"out.wav");
  ComPtr<IExportFilter> filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  ComPtr<ICoreTask> task = As<ICoreTask>(filter);
};

Bytes Format(int channels, int bits) {
  if (channels <= 2) return PlainFormat(1, channels, 44100, bits / 8, bits);
  const std::uint32_t mask = channels == 6 ? 0x3F : channels == 8 ? 0xFF : 0;
  return ExtensibleFormat(1, channels, 44100, bits / 8, bits, mask);
}

TEST(WavExportFilter, WritesWholeFilesOfEveryWidthAndChannelCount) {
  for (const int bits : {8, 16, 24, 32}) {
    for (const SHORT channels : {1, 2, 3, 6, 8}) {
      for (const int frames : {0, 3}) {
        Export out(CodeReader::Create({.channels = channels, .frames = frames, .bits = bits}),
                   bits);
        EXPECT_EQ(out.Run(),
                  Wav(Format(channels, bits), CodesAsPcm(0, frames * channels, bits), Info()))
            << bits << ' ' << channels;
      }
    }
  }
}

TEST(WavExportFilter, ReadsBlocksOf65536FramesAndSilencesTheRestOfAFailedRead) {
  std::vector<std::pair<__int64, std::size_t>> blocks;
  CodeReader* failing = nullptr;
  const auto reader = CodeReader::Create(
      {.channels = 2, .frames = 131073, .before_read = [&](__int64 at, std::span<float> samples) {
         blocks.emplace_back(at, samples.size());
         failing->read_result = at == 65536 ? E_FAIL : S_OK;
         // The failing read fills one sample. The rest of the block must be silent.
         if (at == 65536) samples.front() = 0.5F;
       }});
  failing = reader.Get();
  Export out(reader);
  EXPECT_EQ(out.Run(), Wav(Format(2, 16),
                           CodesAsPcm(0, 131072, 16) + U16(0x4000) + Bytes(131071 * 2) +
                               CodesAsPcm(262144, 2, 16),
                           Info()));
  EXPECT_THAT(blocks,
              ElementsAre(std::pair(0, 131072), std::pair(65536, 131072), std::pair(131072, 2)));
  EXPECT_EQ(out.Progress(), 1.0F);
}

TEST(WavExportFilter, WritesAFileWithoutSamplesForANegativeLengthOrTooManyChannels) {
  Export negative(CodeReader::Create({.channels = 2, .frames = -1}));
  EXPECT_EQ(negative.Run(), Wav(Format(2, 16), {}, Info()));
  // A block of 65536 frames would need almost 2^31 floats, which is more than allowed.
  Export wide(CodeReader::Create({.channels = 32767, .frames = 100000}));
  EXPECT_EQ(wide.Run(), Wav(ExtensibleFormat(1, 32767, 44100, 2, 16, 0), {}, Info()));
  EXPECT_EQ(wide.Progress(), 0.0F);
}

TEST(WavExportFilter, AcceptsAnnotationsDuringTheExportButFixesTheWidthAtStart) {
  IExportFilter* filter = nullptr;
  Export out(CodeReader::Create(
      {.channels = 2, .frames = 65537, .before_read = [&](__int64 position, std::span<float>) {
         if (position == 0) return;
         As<ILabelSupport>(filter)->AddLabel(0x1'2345'6789, Bstr(L"Chorus"));
         As<ISectionMarkerSupport>(filter)->AddSectionMarker(300, 400, Bstr(L"Solo"));
         As<ISectionMarkerSupport>(filter)->AddSectionMarker(50, 20, Bstr(L"Back"));
         As<IMetaDataWriter>(filter)->SetMetaData(Bstr(L"T"), Bstr(L"Ar"), Bstr(L"Alb"),
                                                  Bstr(L"2009"), Bstr(L"Genre"));
         As<IAcidWriter>(filter)->SetAcidData(-60, 4, 8, 16, 97.25F);
         filter->SetBitsPerSample(24);
       }}));
  filter = out.filter.Get();
  EXPECT_EQ(As<ILabelSupport>(filter)->AddLabel(-1, Bstr(L"Verse")), S_OK);
  EXPECT_EQ(out.Run(),
            Wav(Format(2, 16), CodesAsPcm(0, 2 * 65537, 16),
                Chunk("cue ", U32(4) + CuePoint(0, -1, -4, -1) +
                                  CuePoint(1, 0x23456789, 0x8D159E24, 0x23456789) +
                                  CuePoint(2, 0x23456789, 0x8D159E24, 300) +
                                  CuePoint(3, 0x23456789, 0x8D159E24, 50)) +
                    List("adtl", Label(0, "Verse") + Label(1, "Chorus") + Region(2, 100, "Solo") +
                                     Region(3, -30, "Back")) +
                    Info("T", "Ar", "Genre", "Alb", "2009-01-01") +
                    Chunk("acid", U32(static_cast<std::uint32_t>(-60)) + U32(0) + U32(0) + U32(16) +
                                      U16(4) + U16(8) + F32(97.25F))));
}

TEST(WavExportFilter, LeavesAValidFileWhenCancelledAndContinuesAtItsPositionInTheNextRun) {
  ICoreTask* task = nullptr;
  Export out(CodeReader::Create({.frames = 10 * 65536, .before_read = [&](__int64 position, auto) {
                                   if (position == 2 * 65536) task->Cancel();
                                 }}));
  task = out.task.Get();
  // The third read cancels the task. The filter still writes the block of that read.
  EXPECT_EQ(out.Run(), Wav(Format(1, 16), CodesAsPcm(0, 3 * 65536, 16), Info()));
  EXPECT_FLOAT_EQ(out.Progress(), 0.3F);

  Export again(CodeReader::Create({.frames = 10}));
  again.Run();
  const auto longer = CodeReader::Create({.frames = 12});
  EXPECT_EQ(again.filter->Initialize(Bstr(again.path), longer.Get()), S_OK);
  EXPECT_FLOAT_EQ(again.Progress(), 10.0F / 12.0F);
  EXPECT_EQ(again.Run(), Wav(Format(1, 16), CodesAsPcm(10, 2, 16), Info()));
}

TEST(WavExportFilter, FailsWithASharingViolationWhileItsFileIsOpenAndThenClosesIt) {
  const auto reader = CodeReader::Create({.frames = 10});
  Export out(reader);
  // Initialize fails, because the filter has the file open. The failing call closes the file.
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), reader.Get()), kSharingViolation);
  EXPECT_EQ(out.task->Start(), E_FAIL);
  WriteFileBytes(out.path, Bytes(5000, 0xEE));
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), reader.Get()), S_OK);
  EXPECT_EQ(out.Run(), Wav(Format(1, 16), CodesAsPcm(0, 10, 16), Info()));
}

class WaveWriter : public ::testing::Test {
 protected:
  WaveWriter() { EXPECT_EQ(writer->SetTargetFile(Bstr(path)), S_OK); }

  Bytes Record(SHORT channels, SHORT bits, const std::vector<float>& samples) {
    EXPECT_EQ(writer->SetResolution(bits), S_OK);
    EXPECT_EQ(audio->SetFormat(44100, channels), S_OK);
    EXPECT_EQ(audio->OpenDevice(), S_OK);
    // The second OpenDevice fails, and the writer keeps its open file.
    EXPECT_EQ(audio->OpenDevice(), kSharingViolation);
    EXPECT_EQ(audio->WriteAudio(Floats(samples)), S_OK);
    EXPECT_EQ(audio->CloseDevice(), S_OK);
    return ReadFileBytes(path);
  }
  // The wave writer uses the plain header for every channel count.
  static Bytes File(SHORT channels, SHORT bits, const Bytes& codes) {
    return Wav(PlainFormat(bits == 32 ? 3 : 1, channels, 44100, bits / 8, bits), codes, {});
  }

  TemporaryFolder folder;
  std::wstring path = folder.File(L"out.wav");
  ComPtr<IWaveWriter> writer = Create<IWaveWriter>(CLSID_CWaveWriter);
  ComPtr<IAudioWriter> audio = As<IAudioWriter>(writer);
};

TEST_F(WaveWriter, WritesWholeFramesOfIntegersAndAllFloats) {
  const std::pair<SHORT, Bytes> widths[] = {
      {16, Hex("0000FF7F0180004001C00020")},
      {32, F32(0) + F32(1) + F32(-1) + F32(0.5F) + F32(-0.5F) + F32(0.25F)},
  };
  for (const SHORT channels : {1, 2, 6}) {
    for (const auto& [bits, codes] : widths) {
      EXPECT_EQ(Record(channels, bits, {0.0F, 1.0F, -1.0F, 0.5F, -0.5F, 0.25F}),
                File(channels, bits, codes))
          << channels << ' ' << bits;
    }
  }
  const std::tuple<SHORT, SHORT, std::size_t, std::size_t> odd[] = {
      // Channels, bits, samples, and data bytes padded to four.
      {1, 8, 1, 4},
      {2, 24, 5, 12},
      {2, 32, 5, 20},
      {-2, 16, 8, 0},
      {2, 12, 8, 8}};
  for (const auto& [channels, bits, samples, bytes] : odd) {
    EXPECT_EQ(Record(channels, bits, std::vector<float>(samples)).size(), 44 + bytes)
        << channels << ' ' << bits;
  }
}

TEST_F(WaveWriter, CallsTheNextWriterFirstAndWritesTheBlockAsThatWriterChangedIt) {
  const auto next = MakeObject<RecordingWriter>();
  next->result = E_FAIL;  // ignored
  next->on_write = [&](SAFEARRAY* array) { static_cast<float*>(array->pvData)[0] = 0.0F; };
  EXPECT_EQ(writer->SetWriteThrough(next.Get()), S_OK);
  EXPECT_EQ(Record(1, 32, {0.5F, 0.25F}), File(1, 32, F32(0) + F32(0.25F)));
  LONG ready = 42;
  EXPECT_EQ(audio->QueryIsReady(&ready), S_OK);
  EXPECT_EQ(ready, 1);
  EXPECT_THAT(next->calls,
              ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "CloseDevice", "QueryIsReady"));
  EXPECT_TRUE(next->samples_per_sec == 44100 && next->channels == 1);
  EXPECT_THAT(next->samples, ElementsAre(0.5F, 0.25F));
  // The writer passes calls on even if it cannot open its file.
  EXPECT_EQ(writer->SetTargetFile(Bstr(folder.File(L"none\\out.wav"))), S_OK);
  EXPECT_EQ(audio->OpenDevice(), kPathNotFound);
  EXPECT_EQ(audio->WriteAudio(Floats(4)), S_OK);
  EXPECT_EQ(next->blocks, 2U);
}

TEST_F(WaveWriter, TwoWritersThatForwardToEachOtherDoNotRecurse) {
  const auto second = Create<IWaveWriter>(CLSID_CWaveWriter);
  const std::wstring second_path = folder.File(L"second.wav");
  EXPECT_EQ(second->SetTargetFile(Bstr(second_path)), S_OK);
  EXPECT_EQ(second->SetResolution(32), S_OK);
  EXPECT_EQ(writer->SetWriteThrough(As<IAudioWriter>(second).Get()), S_OK);
  EXPECT_EQ(second->SetWriteThrough(audio.Get()), S_OK);
  EXPECT_EQ(Record(1, 32, {0.5F, 1}), File(1, 32, F32(0.5F) + F32(1)));
  EXPECT_EQ(ReadFileBytes(second_path), ReadFileBytes(path));
  // A writer must not keep itself alive. The test program fails at its end if objects are left.
  EXPECT_EQ(second->SetWriteThrough(As<IAudioWriter>(second).Get()), S_OK);
}

}  // namespace
}  // namespace marlinda::testing
