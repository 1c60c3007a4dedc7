#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/export/code_reader.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using namespace riff;

constexpr HRESULT kPathNotFound = HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
constexpr HRESULT kSharingViolation = HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);

// An export filter through all its faces, and the file it writes.
class Export {
 public:
  explicit Export(const ComPtr<IAudioReader>& reader, int bits = 16) {
    EXPECT_EQ(filter->Initialize(Bstr(path), reader.Get()), S_OK);
    EXPECT_EQ(filter->SetBitsPerSample(static_cast<SHORT>(bits)), S_OK);
  }
  Export() = default;

  // Keeps the file for tests/export/foreign_readers.sh, which gives it a folder.
  Bytes Run(const std::wstring& name = L"") {
    EXPECT_EQ(task->Start(), S_OK);
    EXPECT_TRUE(WaitForTask(task.Get()));
    const wchar_t* const kept = name.empty() ? nullptr : _wgetenv(L"TESSALY_KEPT_FILES");
    if (kept != nullptr) CopyFileW(path.c_str(), (kept + name).c_str(), FALSE);
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
  ComPtr<ILabelSupport> labels = As<ILabelSupport>(filter);
  ComPtr<ISectionMarkerSupport> markers = As<ISectionMarkerSupport>(filter);
};

Bytes Format(int channels, int bits) {
  if (channels <= 2) return PlainFormat(1, channels, 44100, bits / 8, bits);
  const std::uint32_t mask = channels == 6 ? 0x3F : channels == 8 ? 0xFF : 0;
  return ExtensibleFormat(1, channels, 44100, bits / 8, bits, mask);
}

Bytes PlainExport(int channels, int bits, std::uint64_t frames) {
  return Wav(Format(channels, bits), CodesAsPcm(0, frames * channels, bits), Info());
}

TEST(WavExportFilter, WritesWholeFilesOfEveryWidthAndChannelCount) {
  for (const int bits : {8, 16, 24, 32}) {
    for (const SHORT channels : {1, 2, 3, 6, 8}) {
      for (const __int64 frames : {0, 3, 257}) {
        Export out(CodeReader::Create({.channels = channels, .frames = frames, .bits = bits}),
                   bits);
        const std::wstring name = std::to_wstring(bits) + L"-" + std::to_wstring(channels) + L"-" +
                                  std::to_wstring(frames) + L".wav";
        EXPECT_EQ(out.Run(name), PlainExport(channels, bits, frames)) << name.c_str();
      }
    }
  }
}

TEST(WavExportFilter, ReadsBlocksOf65536FramesWhateverAFailingReaderLeavesInThem) {
  std::vector<std::pair<__int64, std::size_t>> blocks;
  Export out(CodeReader::Create(
      {.channels = 2, .frames = 131073, .before_read = [&](__int64 at, std::span<float> samples) {
         blocks.emplace_back(at, samples.size());
         if (at != 65536) return S_OK;
         // Silent, whatever the last block held.
         samples.front() = 0.5F;
         return E_FAIL;
       }}));
  EXPECT_EQ(out.Run(), Wav(Format(2, 16),
                           CodesAsPcm(0, 131072, 16) + U16(0x4000) + Bytes(131071 * 2) +
                               CodesAsPcm(262144, 2, 16),
                           Info()));
  EXPECT_THAT(blocks, ::testing::ElementsAre(std::pair(0, 131072), std::pair(65536, 131072),
                                             std::pair(131072, 2)));
  EXPECT_EQ(out.Progress(), 1.0F);
}

TEST(WavExportFilter, WritesAFileWithoutSamplesWhereThereAreNone) {
  const auto plain = [](SHORT channels, LONG rate = 44100) {
    const std::int64_t block_align = channels * 2;
    return U16(1) + U16(channels) + U32(rate) + U32(block_align * rate) + U16(block_align) +
           U16(16);
  };
  const std::tuple<CodeReader::Setup, Bytes, float> cases[] = {
      {{.channels = 2, .frames = -1}, plain(2), -1.0F},
      {{.frames = 100, .format_result = E_FAIL}, plain(0, 0), -1.0F},
      {{.channels = 0, .frames = 100}, plain(0), 1.0F},
      {{.channels = -1, .frames = 100}, plain(-1), 1.0F},
      // 2^31 floats: more than a block may have.
      {{.channels = 32767, .frames = 100000}, ExtensibleFormat(1, 32767, 44100, 2, 16, 0), 0.0F},
  };
  for (const auto& [setup, format, progress] : cases) {
    Export out(CodeReader::Create(setup));
    EXPECT_EQ(out.Run(), Wav(format, {}, Info())) << setup.channels << ' ' << setup.frames;
    EXPECT_EQ(out.Progress(), progress) << setup.channels << ' ' << setup.frames;
  }
  // Past 2^31 frames, without a byte for each.
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  ASSERT_EQ(silence->Create((1LL << 31) + 5, 44100, 1), S_OK);
  Export out(As<IAudioReader>(silence), 0);
  EXPECT_EQ(out.Run(), Wav(PlainFormat(1, 1, 44100, 0, 0), {}, Info()));
  EXPECT_EQ(out.Progress(), 1.0F);
}

TEST(WavExportFilter, TakesAnnotationsUntilTheLastSampleIsWrittenButTheWidthAtStart) {
  const Export* object = nullptr;
  const auto annotate = [&](__int64 position, std::span<float>) {
    if (position == 0) return S_OK;
    EXPECT_EQ(object->labels->AddLabel(200, Bstr(L"Chorus")), S_OK);
    EXPECT_EQ(object->markers->AddSectionMarker(300, 400, Bstr(L"Solo")), S_OK);
    As<IMetaDataWriter>(object->filter)
        ->SetMetaData(Bstr(L"T"), Bstr(L"Ar"), Bstr(L"Alb"), Bstr(L"2009"), Bstr(L"Genre"));
    As<IAcidWriter>(object->filter)->SetAcidData(-60, 4, 8, 16, 97.25F);
    return object->filter->SetBitsPerSample(24);
  };
  Export out(CodeReader::Create({.channels = 2, .frames = 65537, .before_read = annotate}));
  object = &out;
  EXPECT_EQ(out.labels->AddLabel(100, Bstr(L"Verse")), S_OK);
  EXPECT_EQ(out.Run(L"annotated.wav"),
            Wav(Format(2, 16), CodesAsPcm(0, 2 * 65537, 16),
                Chunk("cue ", U32(3) + CuePoint(0, 100, 400, 100) + CuePoint(1, 200, 800, 200) +
                                  CuePoint(2, 200, 800, 300)) +
                    List("adtl", Label(0, "Verse") + Label(1, "Chorus") + Region(2, 100, "Solo")) +
                    Info("T", "Ar", "Genre", "Alb", "2009-01-01") +
                    Chunk("acid", U32(static_cast<std::uint32_t>(-60)) + U32(0) + U32(0) + U32(16) +
                                      U16(4) + U16(8) + F32(97.25F))));
  LONG labels = -1, markers = -1;
  EXPECT_EQ(out.labels->RemoveAllLabels(), S_OK);
  EXPECT_EQ(out.labels->GetLabelCount(&labels), S_OK);
  EXPECT_EQ(out.markers->GetMarkerCount(&markers), S_OK);
  EXPECT_TRUE(labels == 0 && markers == 1);
}

TEST(WavExportFilter, LeavesAValidFileWhenCancelledAndGoesOnAtItsPosition) {
  ICoreTask* task = nullptr;
  Export out(CodeReader::Create({.frames = 10 * 65536, .before_read = [&](__int64 position, auto) {
                                   return position == 2 * 65536 ? task->Cancel() : S_OK;
                                 }}));
  task = out.task.Get();
  out.labels->AddLabel(9, Bstr(L"kept"));
  // The block that was being read when Cancel came is still written.
  EXPECT_EQ(out.Run(), Wav(Format(1, 16), CodesAsPcm(0, 3 * 65536, 16),
                           Chunk("cue ", U32(1) + CuePoint(0, 9, 18, 9)) +
                               List("adtl", Label(0, "kept")) + Info()));
  EXPECT_FLOAT_EQ(out.Progress(), 0.3F);

  Export again(CodeReader::Create({.frames = 10}));
  again.Run();
  const auto longer = CodeReader::Create({.frames = 12});
  EXPECT_EQ(again.filter->Initialize(Bstr(again.path), longer.Get()), S_OK);
  EXPECT_FLOAT_EQ(again.Progress(), 10.0F / 12.0F);
  EXPECT_EQ(again.Run(), Wav(Format(1, 16), CodesAsPcm(10, 2, 16), Info()));
}

TEST(WavExportFilter, ReportsWhyAFileCannotBeMadeAndThenHasNone) {
  const auto reader = CodeReader::Create({.frames = 10});
  Export out;
  const auto expect_failure = [&](const std::wstring& path, HRESULT hr) {
    EXPECT_EQ(out.filter->Initialize(Bstr(path), reader.Get()), hr);
    EXPECT_EQ(out.task->Start(), E_FAIL);
  };
  expect_failure(out.folder.File(L"missing\\out.wav"), kPathNotFound);
  // Nobody else gets at the file, this object's own second call included, which closes it.
  WriteFileBytes(out.path, Bytes(5000, 0xEE));
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), reader.Get()), S_OK);
  expect_failure(out.path, kSharingViolation);
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), reader.Get()), S_OK);
  EXPECT_EQ(out.Run(), PlainExport(1, 16, 10));
}

}  // namespace
}  // namespace marlinda::testing
