// The DirectShow import as a client drives it: files that it reads itself, MPEG audio, and files
// that go through a filter graph, with filters of the test's own that hang.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <span>

#include "core/handle.h"
#include "core/import_section.h"
#include "core/samples/sample_converter.h"
#include "tests/export/riff_builder.h"
#include "tests/import/hanging_filter.h"
#include "tests/import/import_client.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;
using ::testing::SizeIs;

constexpr std::size_t kFrames = 100000;

float CodeOf(std::size_t frame) { return static_cast<float>(frame % 30000) / 32767.0F; }

// Sound in an AVI file, which the system's filters decode, to the last bit.
riff::Bytes AviFile(std::size_t frames = kFrames) {
  using namespace riff;
  constexpr std::size_t kBlock = 1000;
  const Bytes header = Text("auds") + Bytes(16, 0) + U32(2) + U32(16000) + U32(0) + U32(frames) +
                       U32(2 * kBlock) + U32(0xFFFFFFFF) + U32(2) + Bytes(8, 0);
  Bytes movie, index;
  for (std::size_t first = 0; first < frames; first += kBlock) {
    Bytes block;
    for (std::size_t i = first; i < std::min(first + kBlock, frames); ++i) {
      block = std::move(block) + U16(i % 30000);
    }
    index = std::move(index) + Text("00wb") + U32(16) + U32(movie.size() + 4) + U32(block.size());
    movie = std::move(movie) + Chunk("00wb", block);
  }
  return Chunk(
      "RIFF",
      Text("AVI ") +
          List("hdrl", Chunk("avih", U32(0) + U32(16000) + U32(0) + U32(16) + U32(0) + U32(0) +
                                         U32(1) + U32(2000) + Bytes(24, 0)) +
                           List("strl", Chunk("strh", header) +
                                            Chunk("strf", PlainFormat(1, 1, 8000, 2, 16)))) +
          List("movi", movie) + Chunk("idx1", index) + Info("Film"));
}

riff::Bytes WavFile(std::size_t frames = kFrames) {
  return riff::Wav(riff::PlainFormat(1, 2, 44100, 2, 16), riff::Bytes(4 * frames, 1),
                   riff::Info("Plain"));
}

// Silent frames of MPEG audio, 1152 samples each, behind a tag.
riff::Bytes MpegFile(int count) {
  using namespace riff;
  Bytes file = Text("ID3") + Bytes{3, 0, 0, 0, 0, 0, 15} + Text("TIT2") + Bytes{0, 0, 0, 5} +
               Bytes{0, 0, 0} + Text("Tune");
  for (; count > 0; --count) file = std::move(file) + Bytes{0xFF, 0xFB, 0x90, 0} + Bytes(413, 0);
  return file;
}

class DShowImport : public ImportClient {
 protected:
  DShowImport() : ImportClient(CLSID_CDShowImport) {}

  std::wstring Write(const std::wstring& name, const riff::Bytes& bytes) {
    WriteFileBytes(folder_.File(name), bytes);
    return folder_.File(name);
  }

  TemporaryFolder folder_;
};

TEST_F(DShowImport, ReadsBackAllThatTheWavExportWrites) {
  constexpr SHORT kChannels = 6;
  const auto source = RampSource::Make('A', kChannels);
  const std::wstring path = folder_.File(L"out.wav");
  const auto wav = Create<IExportFilter>(CLSID_CWavExportFilter);
  ASSERT_EQ(wav->Initialize(Bstr(path), source.Get()), S_OK);
  wav->SetBitsPerSample(24);
  As<ILabelSupport>(wav)->AddLabel(300, Bstr(L"Second \u00E9"));
  As<ISectionMarkerSupport>(wav)->AddSectionMarker(200, 250, Bstr(L"Region"));
  As<IMetaDataWriter>(wav)->SetMetaData(Bstr(L"Title"), Bstr(L"Artist"), Bstr(L"Album"),
                                        Bstr(L"2009"), Bstr(L"Genre"));
  As<IAcidWriter>(wav)->SetAcidData(-3, 7, 8, 21, 98.25F);
  ASSERT_EQ(As<ICoreTask>(wav)->Start(), S_OK);
  ASSERT_TRUE(WaitForTask(As<ICoreTask>(wav).Get()));

  Import(path);
  std::vector<float> expected;
  for (__int64 i = 0; i < source->frames * kChannels; ++i) {
    expected.push_back(RampSource::Sample('A', i / kChannels, static_cast<int>(i % kChannels)));
  }
  std::vector<std::byte> codes(expected.size() * 3);
  ConvertFloatToPcm(expected, codes, 24);
  ConvertPcmToFloat(codes, expected, 24);
  EXPECT_TRUE(writer_->samples == expected) << "other samples";
  LONG count = 0;
  __int64 begin = 0, end = 0;
  Bstr name;
  const auto labels = As<ILabelSupport>(filter_);
  EXPECT_TRUE(labels->GetLabelCount(&count) == S_OK && count == 1);
  EXPECT_EQ(labels->GetLabel(0, &begin, name.Receive()), S_OK);
  EXPECT_TRUE(begin == 300 && name.str() == L"Second \u00E9");
  EXPECT_EQ(labels->GetLabel(1, &begin, name.Receive()), E_INVALIDARG);
  const auto markers = As<ISectionMarkerSupport>(filter_);
  EXPECT_TRUE(markers->GetMarkerCount(&count) == S_OK && count == 1);
  EXPECT_EQ(markers->GetSectionMarker(0, &begin, &end, name.Receive()), S_OK);
  EXPECT_TRUE(begin == 200 && end == 250 && name.str() == L"Region");
  EXPECT_THAT(MetaData(), ElementsAre(L"Title", L"Artist", L"Album", L"2009", L"Genre"));
  SHORT root = 0, beats = 0, unit = 0;
  float tempo = 0;
  EXPECT_EQ(As<IAcidReader>(filter_)->GetAcidData(&root, &beats, &unit, &count, &tempo), S_OK);
  EXPECT_TRUE(root == -3 && beats == 7 && unit == 8 && count == 21 && tempo == 98.25F);
}

TEST_F(DShowImport, ImportsAPartOfASoundFileAsOftenAsTheFileIsInitialized) {
  using namespace riff;
  Bytes samples;
  for (std::size_t i = 0; i < 4 * kFrames; ++i) samples.push_back(static_cast<char>(i * i >> 7));
  const Bytes au = Text(".snd") + Bytes{0, 0, 0, 24} + Bytes(4, -1) + Bytes{0, 0, 0, 3} +
                   Bytes{0, 0, 16, 0} + Bytes{0, 0, 0, 2} + samples;
  const Bytes wav = Wav(PlainFormat(1, 2, 44100, 2, 16), samples, {});
  for (const auto& [name, file] : std::map<std::wstring, Bytes>{{L"a.wav", wav}, {L"a.au", au}}) {
    const std::wstring path = Write(name, file);
    Import(path);
    const std::vector<float> whole = writer_->samples;
    const std::vector<std::size_t> blocks = writer_->block_sizes;
    for (const auto& [first, count] : {std::pair<std::size_t, std::size_t>{0, kFrames},
                                       {1, 20000},
                                       {70001, kFrames - 70001},
                                       {kFrames - 1, 1}}) {
      writer_ = MakeObject<RecordingWriter>();
      ASSERT_EQ(Initialize(path), S_OK);
      const auto section = As<IImportSection>(filter_);
      EXPECT_EQ(section->QueryCanSetSection(), S_OK);
      EXPECT_EQ(section->SetSection(kFrames, 1), E_INVALIDARG);
      EXPECT_EQ(section->SetSection(1, kFrames), E_INVALIDARG);
      EXPECT_EQ(section->SetSection(-1, 1), E_INVALIDARG);
      EXPECT_EQ(section->SetSection(0, 0), E_INVALIDARG);
      ASSERT_EQ(section->SetSection(static_cast<__int64>(first), static_cast<__int64>(count)),
                S_OK);
      Run();
      EXPECT_TRUE(
          std::ranges::equal(writer_->samples, std::span(whole).subspan(2 * first, 2 * count)))
          << first;
      // All but the first block.
      EXPECT_TRUE(first + count < kFrames ||
                  std::equal(writer_->block_sizes.rbegin(), writer_->block_sizes.rend() - 1,
                             blocks.rbegin()));
      EXPECT_EQ(Total(), count);
      EXPECT_EQ(Progress(), 1);
      EXPECT_EQ(section->SetSection(0, 1), E_FAIL);
    }
  }
  ASSERT_EQ(Initialize(Write(L"a.mp3", MpegFile(8))), S_OK);
  EXPECT_EQ(As<IImportSection>(filter_)->QueryCanSetSection(), S_FALSE);
  EXPECT_EQ(As<IImportSection>(filter_)->SetSection(0, 1), E_FAIL);
}

TEST_F(DShowImport, WritesModerateBlocksOnOneWorkerWhateverTheWriterDoes) {
  struct Row {
    riff::Bytes file;
    const wchar_t* title;
    std::vector<LONG> format;
    std::size_t frames;
  };
  const Row rows[] = {{WavFile(), L"Plain", {44100, 2, 16, 176400}, kFrames},
                      {MpegFile(80), L"Tune", {44100, 2, 16, 15975}, 80 * 1152},
                      {AviFile(), L"Film", {8000, 1, 16, 16215}, kFrames}};
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    const std::wstring path = Write(L"a.b", row.file);
    HarmArrays();
    EXPECT_EQ(QueryCanLoad(path), S_OK);
    EXPECT_EQ(Initialize(path), S_OK);
    EXPECT_EQ(MetaData()[0], row.title);
    EXPECT_EQ(Format(), row.format);
    EXPECT_EQ(Total(), static_cast<__int64>(row.frames));
    EXPECT_EQ(Progress(), 0.0F);
    EXPECT_EQ(DeleteFileW(path.c_str()), FALSE) << "nothing holds the file";
    Run();
    EXPECT_EQ(Progress(), 1.0F);
    EXPECT_EQ(Total(), static_cast<__int64>(row.frames));
    EXPECT_THAT(writer_->calls,
                ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "CloseDevice"));
    EXPECT_THAT(writer_->block_sizes, Each(Le(16384U)));
    EXPECT_LT(writer_->blocks, 101U);
    EXPECT_EQ(writer_->samples.size(), row.frames * static_cast<std::size_t>(row.format[1]));
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE) << "open after the run";
  }
  for (std::size_t i = 0; i < kFrames; ++i) ASSERT_EQ(writer_->samples[i], CodeOf(i)) << i;
}

TEST_F(DShowImport, RefusesWhatHasNoSoundAndStaysAsItWas) {
  EXPECT_THAT(Format(), Each(0));
  EXPECT_EQ(Total(), 0);
  VARIANT_BOOL loop = VARIANT_TRUE;
  EXPECT_EQ(As<IAcidReader>(filter_)->QueryAcidDataAvailable(&loop), S_OK);
  EXPECT_EQ(loop, VARIANT_FALSE);
  EXPECT_EQ(Initialize(Write(L"good.avi", AviFile(100))), S_OK);
  EXPECT_EQ(QueryCanLoad(folder_.File(L"missing.wav")), S_FALSE);
  EXPECT_EQ(QueryCanLoad(folder_.path()), S_FALSE);
  EXPECT_EQ(QueryCanLoad(L"\\\\.\\NUL"), S_FALSE);
  EXPECT_EQ(filter_->QueryCanLoad(nullptr), S_FALSE);
  const auto other = MakeObject<RecordingWriter>();
  for (const riff::Bytes& file :
       {riff::Text("no music at all, only a line of text\n"), riff::Bytes(),
        riff::Wav(riff::PlainFormat(1, 2, 0, 2, 16), riff::Bytes(8, 0), {})}) {
    const std::wstring path = Write(L"bad", file);
    EXPECT_EQ(QueryCanLoad(path), E_FAIL);
    EXPECT_EQ(filter_->Initialize(Bstr(path), other.Get()), E_FAIL);
    EXPECT_EQ(tags_->SetFilename(Bstr(path)), E_FAIL);
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE) << "a refused file is still open";
  }
  EXPECT_EQ(other->Held(), 0);
  EXPECT_EQ(MetaData()[0], L"Film");
  Run();
  EXPECT_EQ(writer_->samples.size(), 100U);
}

TEST_F(DShowImport, EndsAGraphAfterTheBufferInWhichItIsCancelledOrReleased) {
  const std::wstring path = Write(L"a.avi", AviFile());
  for (const bool by_release : {false, true}) {
    SCOPED_TRACE(by_release);
    filter_ = Create<IImportFilter>(CLSID_CDShowImport);
    task_ = As<ICoreTask>(filter_);
    writer_ = MakeObject<RecordingWriter>();
    const KernelHandle ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    writer_->on_write = [&](SAFEARRAY*) {
      WaitForSingleObject(ready.get(), INFINITE);
      if (writer_->blocks > 1) return;
      by_release ? void(filter_.Reset()) : void(task_->Cancel());
    };
    EXPECT_EQ(Initialize(path), S_OK);
    ICoreTask* const task = task_.Get();
    EXPECT_EQ(task->Start(), S_OK);
    if (by_release) task_.Reset();
    SetEvent(ready.get());
    while (ReferenceCount(writer_.Get()) > 1) Sleep(1);
    EXPECT_EQ(writer_->blocks, 1U);
    EXPECT_TRUE(writer_->closed);
  }
}

TEST_F(DShowImport, GivesUpFiltersThatHang) {
  {
    const HangingFilters filters;
    struct Run {
      ComPtr<IImportFilter> filter = Create<IImportFilter>(CLSID_CDShowImport);
      ComPtr<ICoreTask> task = As<ICoreTask>(filter);
      ComPtr<RecordingWriter> writer = MakeObject<RecordingWriter>();
    };
    std::map<std::wstring, Run> runs;
    for (const wchar_t* name : {L"run", L"second build", L"stop"}) {
      Run& run = runs[name];
      const std::wstring path = Write(name, AviFile(100));
      EXPECT_EQ(run.filter->Initialize(Bstr(path), run.writer.Get()), S_OK) << name;
      EXPECT_EQ(run.task->Start(), S_OK);
    }
    const std::wstring never = Write(L"build", AviFile(100));
    EXPECT_EQ(Create<IImportFilter>(CLSID_CDShowImport)->QueryCanLoad(Bstr(never)), E_FAIL);
    EXPECT_EQ(runs[L"stop"].task->Cancel(), S_OK);
    for (const auto& [name, run] : runs) {
      EXPECT_TRUE(WaitForTask(run.task.Get()));
      float progress = -1;
      EXPECT_EQ(run.task->GetProgress(&progress), S_OK) << name;
      EXPECT_LT(progress, 1.0F);
      EXPECT_TRUE(run.writer->closed);
    }
    EXPECT_THAT(runs[L"stop"].writer->samples, SizeIs(100));
    // The program's end finds threads that stay.
    EXPECT_EQ(filters.hanging(), 3);
  }
}

TEST_F(DShowImport, ReadsWhatADamagedOrUnfinishedFileHolds) {
  riff::Bytes film = AviFile();
  film.resize(film.size() / 2);
  Import(Write(L"film.avi", film));
  EXPECT_GT(writer_->samples.size(), kFrames / 3);
  EXPECT_LE(writer_->samples.size(), kFrames / 2 + 2000);
  EXPECT_TRUE(writer_->closed);
  const std::wstring path = Write(L"a.wav", WavFile(10));
  const FileHandle other(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(other) << "the program that writes it";
  Import(path);
  EXPECT_THAT(writer_->samples, SizeIs(20));
}

}  // namespace
}  // namespace marlinda::testing
