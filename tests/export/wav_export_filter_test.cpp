#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <limits>

#include "tests/export/code_reader.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::ElementsAre;

constexpr HRESULT kSharingViolation = static_cast<HRESULT>(0x80070020);
constexpr HRESULT kPathNotFound = static_cast<HRESULT>(0x80070003);
constexpr HRESULT kAccessDenied = static_cast<HRESULT>(0x80070005);

bool IsRunning(ICoreTask* task) {
  VARIANT_BOOL running = 42;
  EXPECT_EQ(task->QueryIsTaskRunning(&running), S_OK);
  EXPECT_TRUE(running == VARIANT_TRUE || running == VARIANT_FALSE);
  return running == VARIANT_TRUE;
}

// An export filter through all its faces, and the file it writes.
class Export {
 public:
  explicit Export(const ComPtr<IAudioReader>& reader, SHORT bits = 16) {
    EXPECT_EQ(filter->Initialize(Bstr(path), reader.Get()), S_OK);
    EXPECT_EQ(filter->SetBitsPerSample(bits), S_OK);
  }
  Export() = default;

  void Start() { EXPECT_EQ(task->Start(), S_OK); }
  Bytes Run() {
    Start();
    return Finish();
  }
  Bytes Finish() {
    EXPECT_TRUE(WaitForTask(task.Get()));
    return File();
  }
  Bytes File() const { return ReadFileBytes(path); }
  float Progress() const {
    float progress = -1;
    EXPECT_EQ(task->GetProgress(&progress), S_OK);
    return progress;
  }

  TemporaryFolder folder;
  std::wstring path = folder.File(L"out.wav");
  ComPtr<IExportFilter> filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  ComPtr<ICoreTask> task = As<ICoreTask>(filter);
  ComPtr<ILabelSupport> labels = As<ILabelSupport>(filter);
  ComPtr<ISectionMarkerSupport> markers = As<ISectionMarkerSupport>(filter);
  ComPtr<IMetaDataWriter> meta_data = As<IMetaDataWriter>(filter);
  ComPtr<IAcidWriter> acid = As<IAcidWriter>(filter);
};

Bytes Format(int channels, int bits) {
  if (channels <= 2) return PlainFormat(1, channels, 44100, bits / 8, bits);
  const std::uint32_t mask = channels == 6 ? 0x3F : channels == 8 ? 0xFF : 0;
  return ExtensibleFormat(1, channels, 44100, bits / 8, bits, mask);
}

Bytes PlainExport(int channels, int bits, std::uint64_t frames) {
  return Wav(Format(channels, bits), CodesAsPcm(0, frames * channels, bits), Info());
}

// Lets a read happen when the test says so.
class Gate {
 public:
  // For CodeReader::Setup::before_read: waits in the block at `position`.
  auto At(__int64 position) {
    return [this, position](__int64 at, std::span<float>) {
      if (at == position) {
        reached_.set_value();
        opened_.get_future().wait();
      }
      return S_OK;
    };
  }
  void WaitUntilReached() { reached_.get_future().wait(); }
  void Open() { opened_.set_value(); }

 private:
  std::promise<void> reached_;
  std::promise<void> opened_;
};

TEST(WavExportFilter, WritesWholeFilesOfEveryWidthAndChannelCount) {
  for (const int bits : {8, 16, 24, 32}) {
    for (const SHORT channels : {1, 2, 3, 6, 8}) {
      for (const __int64 frames : {1, 3, 257}) {
        Export out(CodeReader::Create({.channels = channels, .frames = frames, .bits = bits}),
                   static_cast<SHORT>(bits));
        EXPECT_EQ(out.Run(), PlainExport(channels, bits, frames))
            << bits << " bits, " << channels << " channels, " << frames << " frames";
      }
    }
  }
}

TEST(WavExportFilter, ReadsAtMost65536FramesAtOnceAndLosesNoneAtTheSeams) {
  for (const __int64 frames : {65535, 65536, 65537, 131073}) {
    const auto log = std::make_shared<ReaderLog>();
    Export out(CodeReader::Create({.channels = 2, .frames = frames, .bits = 24}, log), 24);
    EXPECT_EQ(out.Run(), PlainExport(2, 24, frames)) << frames;
    std::vector<ReaderLog::Block> expected;
    for (__int64 at = 0; at < frames; at += 65536) {
      expected.push_back({at, static_cast<std::size_t>(std::min(frames - at, 65536LL)) * 2});
    }
    EXPECT_EQ(log->Blocks(), expected) << frames;
    EXPECT_EQ(out.Progress(), 1.0F);
  }
}

TEST(WavExportFilter, WritesAnEmptyDataChunkForASourceWithoutFrames) {
  for (const __int64 frames : {0LL, -1LL, std::numeric_limits<__int64>::min()}) {
    Export out(CodeReader::Create({.channels = 2, .frames = frames}));
    EXPECT_EQ(out.Run(), PlainExport(2, 16, 0));
    float progress = 42;
    EXPECT_EQ(out.task->GetProgress(&progress), E_FAIL);
    EXPECT_EQ(progress, 42);
  }
}

TEST(WavExportFilter, WritesLabelsMarkersTextsAndAcidDataBehindTheSamples) {
  Export out(CodeReader::Create({.channels = 2, .frames = 500}));
  EXPECT_EQ(out.labels->AddLabel(100, Bstr(L"Verse")), S_OK);
  EXPECT_EQ(out.labels->AddLabel(200, Bstr(L"Chorus")), S_OK);
  EXPECT_EQ(out.markers->AddSectionMarker(300, 400, Bstr(L"Solo")), S_OK);
  EXPECT_EQ(out.meta_data->SetMetaData(Bstr(L"T"), Bstr(L"Ar"), Bstr(L"Alb"), Bstr(L"2009"),
                                       Bstr(L"Genre")),
            S_OK);
  EXPECT_EQ(out.acid->SetAcidData(-60, 4, 8, 16, 97.25F), S_OK);
  EXPECT_EQ(out.Run(),
            Wav(Format(2, 16), CodesAsPcm(0, 1000, 16),
                Chunk("cue ", U32(3) + CuePoint(0, 100, 400, 100) + CuePoint(1, 200, 800, 200) +
                                  CuePoint(2, 200, 800, 300)) +
                    List("adtl", Label(0, "Verse") + Label(1, "Chorus") + Region(2, 100, "Solo")) +
                    Info("T", "Ar", "Genre", "Alb", "2009-01-01") +
                    Chunk("acid", U32(static_cast<std::uint32_t>(-60)) + U32(0) + U32(0) + U32(16) +
                                      U16(4) + U16(8) + F32(97.25F))));
}

TEST(WavExportFilter, CountsLabelsAndMarkersAndForgetsThemAllAtOnce) {
  Export out(CodeReader::Create({.frames = 4}));
  LONG count = -1;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(out.labels->AddLabel(i, Bstr(L"x")), S_OK);
  EXPECT_EQ(out.labels->GetLabelCount(&count), S_OK);
  EXPECT_EQ(count, 3);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(out.markers->AddSectionMarker(i, i, Bstr(L"x")), S_OK);
  EXPECT_EQ(out.markers->GetMarkerCount(&count), S_OK);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(out.labels->RemoveAllLabels(), S_OK);
  EXPECT_EQ(out.markers->RemoveAllSectionMarkers(), S_OK);
  EXPECT_EQ(out.labels->GetLabelCount(&count), S_OK);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(out.markers->GetMarkerCount(&count), S_OK);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(out.Run(), PlainExport(1, 16, 4));

  Bstr name;
  __int64 position = 0;
  EXPECT_EQ(out.labels->GetLabel(0, &position, name.Receive()), E_NOTIMPL);
  EXPECT_EQ(out.labels->SetLabel(0, 0, name), E_NOTIMPL);
  EXPECT_EQ(out.labels->RemoveLabel(0), E_NOTIMPL);
  EXPECT_EQ(out.markers->GetSectionMarker(0, &position, &position, name.Receive()), E_NOTIMPL);
  EXPECT_EQ(out.markers->SetSectionMarker(0, 0, 0, name), E_NOTIMPL);
  EXPECT_EQ(out.markers->RemoveSectionMarker(0), E_NOTIMPL);
}

TEST(WavExportFilter, TakesAnnotationsUntilTheLastSampleIsWrittenButTheWidthAtStart) {
  Gate gate;
  Export out(CodeReader::Create({.frames = 65536 + 7, .before_read = gate.At(65536)}));
  out.labels->AddLabel(1, Bstr(L"early"));
  out.Start();
  gate.WaitUntilReached();
  out.labels->AddLabel(2, Bstr(L"late"));
  out.meta_data->SetMetaData(Bstr(L"late title"), nullptr, nullptr, nullptr, nullptr);
  out.filter->SetBitsPerSample(24);
  gate.Open();
  EXPECT_EQ(out.Finish(),
            Wav(Format(1, 16), CodesAsPcm(0, 65536 + 7, 16),
                Chunk("cue ", U32(2) + CuePoint(0, 1, 2, 1) + CuePoint(1, 2, 4, 2)) +
                    List("adtl", Label(0, "early") + Label(1, "late")) + Info("late title")));
}

TEST(WavExportFilter, LeavesAValidFileWithAllItsChunksWhenCancelled) {
  ICoreTask* task = nullptr;
  Export out(CodeReader::Create(
      {.channels = 2, .frames = 10 * 65536, .before_read = [&](__int64 position, auto) {
         return position == 2 * 65536 ? task->Cancel() : S_OK;
       }}));
  task = out.task.Get();
  out.labels->AddLabel(9, Bstr(L"kept"));
  out.acid->SetAcidData(1, 2, 3, 4, 5.0F);
  // The block that was being read when Cancel came is still written.
  EXPECT_EQ(
      out.Run(),
      Wav(Format(2, 16), CodesAsPcm(0, 3 * 65536 * 2, 16),
          Chunk("cue ", U32(1) + CuePoint(0, 9, 36, 9)) + List("adtl", Label(0, "kept")) + Info() +
              Chunk("acid", U32(1) + U32(0) + U32(0) + U32(4) + U16(2) + U16(3) + F32(5.0F))));
  EXPECT_FLOAT_EQ(out.Progress(), 0.3F);
}

TEST(WavExportFilter, HoldsOneReferenceToItsReaderUntilTheFileIsClosed) {
  auto first = CodeReader::Create({.frames = 20});
  const auto log = std::make_shared<ReaderLog>();
  auto reader = CodeReader::Create({.frames = 10}, log);
  Export out(first);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(out.filter->Initialize(Bstr(out.folder.File(L"second.wav")), reader.Get()),
              i == 0 ? S_OK : kSharingViolation);
    EXPECT_EQ(ReferenceCount(reader.Get()), 2U);
    EXPECT_EQ(ReferenceCount(first.Get()), 1U);
  }
  EXPECT_EQ(out.filter->Initialize(Bstr(out.folder.File(L"second.wav")), reader.Get()), S_OK);
  reader.Reset();
  out.Start();
  EXPECT_TRUE(WaitForTask(out.task.Get()));
  EXPECT_NE(log->released_on_thread, 0U);
  EXPECT_NE(log->released_on_thread, GetCurrentThreadId());
  EXPECT_TRUE(DeleteFileW(out.folder.File(L"second.wav").c_str())) << "still open";
}

TEST(WavExportFilter, WritesWhatAFailingReaderLeftInTheBlock) {
  Export out(CodeReader::Create(
      {.frames = 3 * 65536, .before_read = [](__int64 position, std::span<float> samples) {
         if (position != 65536) return S_OK;
         // The block is silent before the reader touches it, whatever the last one held.
         samples.front() = 0.5F;
         return E_FAIL;
       }}));
  Bytes samples =
      CodesAsPcm(0, 65536, 16) + U16(0x4000) + Bytes(65535 * 2) + CodesAsPcm(2 * 65536, 65536, 16);
  EXPECT_EQ(out.Run(), Wav(Format(1, 16), samples, Info()));
  EXPECT_EQ(out.Progress(), 1.0F);
}

TEST(WavExportFilter, WritesAFileWithoutSamplesForAReaderWithoutAFormat) {
  Export silent(CodeReader::Create({.frames = 100, .format_result = E_FAIL}));
  EXPECT_EQ(silent.Run(), Wav(PlainFormat(1, 0, 0, 2, 16), {}, Info()));

  for (const SHORT channels : {0, -1, -32768}) {
    Export out(CodeReader::Create({.channels = channels, .frames = 100}));
    const std::int64_t block_align = channels * 2;
    EXPECT_EQ(out.Run(), Wav(U16(1) + U16(channels) + U32(44100) + U32(block_align * 44100) +
                                 U16(block_align) + U16(16),
                             {}, Info()));
    EXPECT_EQ(out.Progress(), 1.0F);
  }
}

TEST(WavExportFilter, EndsTheSamplesWhereNoArrayCanHoldABlock) {
  // 2^31 floats: more than a block may have.
  Export out(CodeReader::Create({.channels = 32767, .frames = 100000}));
  out.labels->AddLabel(1, Bstr(L"kept"));
  EXPECT_EQ(out.Run(), Wav(ExtensibleFormat(1, 32767, 44100, 2, 16, 0), {},
                           Chunk("cue ", U32(1) + CuePoint(0, 1, 65534, 1)) +
                               List("adtl", Label(0, "kept")) + Info()));
}

TEST(WavExportFilter, ComesToAnEndPastTwoToThePowerOf31Frames) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  ASSERT_EQ(silence->Create((1LL << 31) + 5, 44100, 1), S_OK);
  Export out(As<IAudioReader>(silence), 0);
  EXPECT_EQ(out.Run(), Wav(PlainFormat(1, 1, 44100, 0, 0), {}, Info()));
  EXPECT_EQ(out.Progress(), 1.0F);
}

TEST(WavExportFilter, GoesOnAtItsPositionInASecondExport) {
  Export out(CodeReader::Create({.frames = 10}));
  out.Run();
  const std::wstring second = out.folder.File(L"second.wav");
  EXPECT_EQ(out.filter->Initialize(Bstr(second), CodeReader::Create({.frames = 12}).Get()), S_OK);
  EXPECT_FLOAT_EQ(out.Progress(), 10.0F / 12.0F);
  out.Run();
  EXPECT_EQ(ReadFileBytes(second), Wav(Format(1, 16), CodesAsPcm(10, 2, 16), Info()));
}

TEST(WavExportFilter, ReportsWhyAFileCannotBeMadeAndThenHasNone) {
  const auto reader = CodeReader::Create({.frames = 10});
  Export out;
  const auto initialize = [&](const std::wstring& path) {
    const HRESULT hr = out.filter->Initialize(Bstr(path), reader.Get());
    EXPECT_EQ(out.task->Start(), E_FAIL);
    EXPECT_FALSE(IsRunning(out.task.Get()));
    return hr;
  };
  EXPECT_EQ(initialize(L""), kPathNotFound);
  EXPECT_EQ(initialize(out.folder.File(L"missing\\out.wav")), kPathNotFound);
  EXPECT_EQ(initialize(out.folder.path()), kAccessDenied);
  EXPECT_TRUE(FAILED(initialize(out.folder.File(std::wstring(5000, L'x')))));
  EXPECT_EQ(out.filter->Initialize(nullptr, reader.Get()), kPathNotFound);
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), nullptr), E_POINTER);
  EXPECT_EQ(GetFileAttributesW(out.path.c_str()), INVALID_FILE_ATTRIBUTES);

  // Nobody else gets at the file, this object's own second call included, which lets go of it.
  WriteFileBytes(out.path, Bytes(5000, 0xEE));
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), reader.Get()), S_OK);
  EXPECT_EQ(initialize(out.path), kSharingViolation);
  EXPECT_EQ(out.filter->Initialize(Bstr(out.path), reader.Get()), S_OK);
  EXPECT_EQ(out.Run(), PlainExport(1, 16, 10));
}

TEST(WavExportFilter, DescribesItselfToTheHost) {
  Export out;
  for (const auto& [extension, supported] : {std::pair{L"wav", true},
                                             {L"wAv", true},
                                             {L".wav", false},
                                             {L"wave", false},
                                             {L"", false}}) {
    VARIANT_BOOL answer = 42;
    EXPECT_EQ(out.filter->QuerySupportsExtension(Bstr(extension), &answer), S_OK);
    EXPECT_EQ(answer, supported ? VARIANT_TRUE : VARIANT_FALSE) << extension;
    answer = 42;
    EXPECT_EQ(out.filter->QueryHasSettingsDlg(Bstr(extension), &answer), S_OK);
    EXPECT_EQ(answer, VARIANT_TRUE);
  }
  VARIANT_BOOL answer = 42;
  EXPECT_EQ(out.filter->QuerySupportsExtension(nullptr, &answer), S_OK);
  EXPECT_EQ(answer, VARIANT_FALSE);
  answer = 42;
  EXPECT_EQ(out.filter->QueryIsLossy(&answer), S_OK);
  EXPECT_EQ(answer, VARIANT_FALSE);
  SHORT merit = 0;
  EXPECT_EQ(out.filter->GetMerit(&merit), S_OK);
  EXPECT_EQ(merit, 200);
  Bstr filter_string, extensions, name;
  EXPECT_EQ(out.filter->GetFilterStrings(filter_string.Receive(), extensions.Receive()), S_OK);
  EXPECT_EQ(filter_string.str(), L"Wave Audio Files (*.wav)|*.wav|");
  EXPECT_EQ(extensions.str(), L"*.wav");

  EXPECT_EQ(out.task->GetName(name.Receive()), S_OK);
  EXPECT_EQ(name.str(), L"Saving ");
  out.filter->Initialize(Bstr(out.folder.File(L"100%s.wav")),
                         CodeReader::Create({.frames = 1}).Get());
  EXPECT_EQ(out.task->GetName(name.Receive()), S_OK);
  EXPECT_EQ(name.str(), L"Saving " + out.folder.File(L"100%s.wav"));
}

}  // namespace
}  // namespace marlinda::testing
