// Tests the import filters through COM: Ogg files, files that CDShowImport reads itself, MPEG
// audio, and files that need a filter graph, including graphs with filters that hang.
#include <gmock/gmock.h>
// Must follow windows.h.
#include <dshow.h>

#include <algorithm>
#include <span>
#include <thread>

#include "core/handle.h"
#include "core/import_section.h"
#include "dshow/graph_filter.h"
#include "tests/export/riff_builder.h"
#include "tests/import/ogg_files.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;
using ::testing::SizeIs;
using Path = std::filesystem::path;

class ImportFilter : public ::testing::Test {
 protected:
  explicit ImportFilter(REFCLSID clsid) : filter_(Create<IImportFilter>(clsid)) {}

  HRESULT QueryCanLoad(const Path& path) { return filter_->QueryCanLoad(Bstr(path.wstring())); }
  HRESULT SetFilename(const Path& path) { return tags_->SetFilename(Bstr(path.wstring())); }
  // Initialises the filter with a new writer.
  HRESULT Initialize(const Path& path) {
    writer_ = MakeObject<RecordingWriter>();
    return filter_->Initialize(Bstr(path.wstring()), writer_.Get());
  }
  void Run() {
    ASSERT_EQ(task_->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task_.Get()));
    EXPECT_TRUE(writer_->closed);
    ASSERT_THAT(writer_->threads, SizeIs(1));
    EXPECT_NE(writer_->threads[0], GetCurrentThreadId());
  }
  void Import(const Path& path) {
    ASSERT_EQ(Initialize(path), S_OK);
    Run();
  }
  // Makes the writer fail and try to resize every array that it gets.
  void HarmArrays() {
    writer_->result = E_FAIL;
    writer_->on_write = [this](SAFEARRAY* array) {
      SAFEARRAYBOUND bound = {writer_->blocks % 2 == 0 ? 3U : 100000U, 7};
      EXPECT_EQ(SafeArrayRedim(array, &bound), DISP_E_ARRAYISLOCKED);
    };
  }
  // Imports parts of a stereo file. Each must equal the same part of the whole import.
  void ExpectEveryPart(const Path& path) {
    SCOPED_TRACE(path);
    Import(path);
    const auto whole = writer_->samples;
    const __int64 frames = Total();
    const auto section = As<IImportSection>(filter_);
    for (const auto& [first, count] : {std::pair<__int64, __int64>{0, frames},
                                       {1, 20000},
                                       {frames - 1, 1},
                                       {12345, frames - 12345}}) {
      ASSERT_EQ(Initialize(path), S_OK);
      EXPECT_EQ(section->QueryCanSetSection(), S_OK);
      for (const auto& [wrong, length] :
           {std::pair<__int64, __int64>{frames, 1}, {1, frames}, {-1, 1}, {0, 0}}) {
        EXPECT_EQ(section->SetSection(wrong, length), E_INVALIDARG);
      }
      ASSERT_EQ(section->SetSection(first, count), S_OK);
      Run();
      const auto begin = whole.begin() + static_cast<std::ptrdiff_t>(2 * first);
      EXPECT_TRUE(std::ranges::equal(writer_->samples, std::span(begin, begin + 2 * count)))
          << first;
      EXPECT_EQ(Total(), count);
      EXPECT_EQ(Progress(), 1);
      EXPECT_EQ(section->SetSection(0, 1), E_FAIL);
    }
  }
  std::vector<std::wstring> MetaData() {
    Bstr title, artist, album, year, genre;
    EXPECT_EQ(tags_->GetMetaData(title.Receive(), artist.Receive(), album.Receive(), year.Receive(),
                                 genre.Receive()),
              S_OK);
    return {title.str(), artist.str(), album.str(), year.str(), genre.str()};
  }
  // Returns rate, channels, bits and bytes per second.
  std::vector<LONG> Format() {
    LONG rate = -1, bytes_per_sec = -1;
    SHORT channels = -1, bits = -1;
    const auto format = As<IExFormatInfo>(filter_);
    EXPECT_EQ(format->GetFormat(&rate, &channels), S_OK);
    EXPECT_EQ(format->GetBitsPerSample(&bits), S_OK);
    EXPECT_EQ(format->GetAvgBytesPerSec(&bytes_per_sec), S_OK);
    return {rate, channels, bits, bytes_per_sec};
  }
  __int64 Total() {
    __int64 count = -1;
    EXPECT_EQ(filter_->GetSourceSampleCount(&count), S_OK);
    return count;
  }
  // Returns -1 if GetProgress fails.
  float Progress() {
    float progress = -1;
    return SUCCEEDED(task_->GetProgress(&progress)) ? progress : -1;
  }

  ComPtr<IImportFilter> filter_;
  ComPtr<ICoreTask> task_ = As<ICoreTask>(filter_);
  const ComPtr<IMetaDataReader> tags_ = As<IMetaDataReader>(filter_);
  ComPtr<RecordingWriter> writer_;
  TemporaryFolder folder_;
};

class OggImport : public ImportFilter {
 protected:
  OggImport() : ImportFilter(CLSID_COggImport) {}
};

TEST_F(OggImport, WritesDecodedBlocksOnOneThreadOfItsOwn) {
  // The filter omits the mono part of the chain, so progress ends below 1.
  const TemporaryOgg chain(ReadData("stereo.ogg") + ReadData("mono.ogg"));
  for (const auto& [path, announced, progress] :
       {std::tuple{DataFile("six_channels.ogg"), 24000, 1.0F},
        {DataFile("no_samples.ogg"), 0, -1.0F},
        {chain.path(), 44100, 44100 / (44100 + 66150.0F)}}) {
    SCOPED_TRACE(path);
    Import(path);
    EXPECT_EQ(Total(), announced);
    EXPECT_FLOAT_EQ(Progress(), progress);
    const Decoded expected = DecodeWithLibrary(path);
    EXPECT_EQ(writer_->samples_per_sec, expected.samples_per_sec);
    EXPECT_EQ(writer_->channels, expected.channels);
    EXPECT_EQ(writer_->block_sizes, expected.block_sizes);
    EXPECT_TRUE(std::ranges::equal(writer_->samples, expected.samples, {}, {}, [](int code) {
      return static_cast<float>(code / 32767.0);
    })) << "other samples than the library's";
  }
  EXPECT_EQ(Initialize(chain.path()), S_OK);
  EXPECT_EQ(As<IImportSection>(filter_)->QueryCanSetSection(), S_FALSE);
  EXPECT_EQ(As<IImportSection>(filter_)->SetSection(0, 1), E_FAIL);
  ExpectEveryPart(DataFile("stereo.ogg"));
  // The file has more samples than its last page announces. The filter does not cut the last block.
  Import(TemporaryOgg(WithLastPosition("stereo.ogg", 1000)).path());
  EXPECT_EQ(Total(), 1000);
  EXPECT_EQ(Progress(), 1.0F);
  EXPECT_LT(writer_->samples.size() - writer_->block_sizes.back(), 2U * 1000);
  EXPECT_GT(writer_->samples.size(), 2U * 1000);
}

TEST_F(OggImport, AcceptsOnlyOggVorbisFilesAndClosesRefusedFiles) {
  const Path file = folder_.File(L"a.ogg");
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  EXPECT_EQ(QueryCanLoad(file), S_FALSE);
  EXPECT_EQ(Initialize(file), E_FAIL);
  EXPECT_EQ(task_->Start(), E_FAIL);
  Bytes cut = ReadData("stereo.ogg");
  cut.resize(3000);
  for (const auto& [bytes, can_load, initialized] :
       {std::tuple{cut, E_FAIL, E_FAIL},
        {ReadData(kManyCodebooks), S_OK, E_OUTOFMEMORY},
        {ReadData("stereo.ogg"), S_OK, S_OK}}) {
    SCOPED_TRACE(bytes.size());
    WriteFileBytes(file.wstring(), bytes);
    EXPECT_EQ(QueryCanLoad(file), can_load);
    EXPECT_EQ(SetFilename(file), can_load);
    EXPECT_EQ(Initialize(file), initialized);
    EXPECT_EQ(DeleteFileW(file.c_str()) != FALSE, FAILED(initialized)) << "open or not";
  }
}

TEST_F(OggImport, ReportsTheSourceAndTheCommentsOfTheFileNamedLast) {
  EXPECT_THAT(Format(), Each(0));
  EXPECT_EQ(Initialize(DataFile("six_channels.ogg")), S_OK);
  EXPECT_THAT(Format(), ElementsAre(48000, 6, 16, 120000 / 8));
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  EXPECT_THAT(MetaData(), ElementsAre(L"A title", L"Someone", L"Ein Album", L"2009", L"Ambient"));
  // SetFilename does not change the import that was set up.
  EXPECT_EQ(SetFilename(DataFile("other.ogg")), S_OK);
  EXPECT_EQ(SetFilename(L"no such file"), E_FAIL);
  EXPECT_THAT(MetaData(), ElementsAre(L"\u00DCberraschung", L"Ren\u00E9e", L"", L"1998", L""));
  EXPECT_EQ(Total(), 44100);
  // A writer that fails and tries to resize its arrays still gets all blocks.
  HarmArrays();
  Run();
  EXPECT_EQ(writer_->block_sizes, DecodeWithLibrary(DataFile("stereo.ogg")).block_sizes);
}

// The length of film.avi and of WavFile(). Each sample of film.avi holds its frame number.
constexpr std::size_t kFrames = 24000;

// Returns a stereo file in which every frame differs from its neighbours.
Bytes WavFile(std::size_t frames = kFrames) {
  Bytes samples;
  for (std::size_t i = 0; i < 4 * frames; ++i) {
    samples.push_back(static_cast<unsigned char>(i * i >> 7));
  }
  return riff::Wav(riff::PlainFormat(1, 2, 44100, 2, 16), samples, riff::Info("Plain"));
}

// Returns a tag and silent frames of MPEG audio with 1152 samples each.
Bytes MpegFile(int count) {
  using namespace riff;
  Bytes file = Text("ID3") + Bytes{3, 0, 0, 0, 0, 0, 15} + Text("TIT2") + Bytes{0, 0, 0, 5} +
               Bytes{0, 0, 0} + Text("Tune");
  for (; count > 0; --count) file = std::move(file) + Bytes{0xFF, 0xFB, 0x90, 0} + Bytes(413, 0);
  return file;
}

class DShowImport : public ImportFilter {
 protected:
  DShowImport() : ImportFilter(CLSID_CDShowImport) {}

  std::wstring Write(const std::wstring& name, const Bytes& bytes) {
    WriteFileBytes(folder_.File(name), bytes);
    return folder_.File(name);
  }

  const Bytes film_ = ReadData("film.avi");
};

TEST_F(DShowImport, WritesBlocksOfAtMost16384SamplesOnOneThreadEvenIfTheWriterFails) {
  struct Row {
    Bytes file;
    const wchar_t* title;
    std::vector<LONG> format;
    std::size_t frames;
  };
  const Row rows[] = {{WavFile(), L"Plain", {44100, 2, 16, 176400}, kFrames},
                      {MpegFile(80), L"Tune", {44100, 2, 16, 15975}, 80 * 1152},
                      {film_, L"Film", {8000, 1, 16, 18076}, kFrames}};
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    const std::wstring path = Write(L"a.b", row.file);
    EXPECT_EQ(QueryCanLoad(path), S_OK);
    EXPECT_EQ(Initialize(path), S_OK);
    HarmArrays();
    EXPECT_EQ(MetaData()[0], row.title);
    EXPECT_EQ(Format(), row.format);
    EXPECT_EQ(Total(), static_cast<__int64>(row.frames));
    Run();
    EXPECT_THAT(writer_->calls,
                ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "CloseDevice"));
    EXPECT_THAT(writer_->block_sizes, Each(Le(16384U)));
    EXPECT_LT(writer_->blocks, 101U);
    EXPECT_EQ(writer_->samples.size(), row.frames * static_cast<std::size_t>(row.format[1]));
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE) << "open after the run";
  }
  ExpectEveryPart(Write(L"a.wav", WavFile()));
  EXPECT_THAT(writer_->block_sizes, ElementsAre(2 * 4039, 2 * 7616)) << "in the grid of the whole";
  Import(DataFile("film.avi"));
  EXPECT_EQ(As<IImportSection>(filter_)->SetSection(0, 1), E_FAIL);
  for (std::size_t i = 0; i < kFrames; ++i) {
    ASSERT_EQ(writer_->samples[i], static_cast<float>(i) / 32767.0F) << i;
  }
}

TEST_F(DShowImport, RefusesFilesWithoutSoundAndKeepsThePreviousImport) {
  EXPECT_THAT(Format(), Each(0));
  EXPECT_EQ(Initialize(DataFile("film.avi")), S_OK);
  EXPECT_EQ(QueryCanLoad(folder_.File(L"missing.wav")), S_FALSE);
  const auto other = MakeObject<RecordingWriter>();
  for (const Bytes& file : {riff::Text("no music at all, only a line of text\n"), Bytes(),
                            riff::Wav(riff::PlainFormat(1, 2, 0, 2, 16), Bytes(8, 0), {})}) {
    const std::wstring path = Write(L"bad", file);
    EXPECT_EQ(QueryCanLoad(path), E_FAIL);
    EXPECT_EQ(filter_->Initialize(Bstr(path), other.Get()), E_FAIL);
    EXPECT_EQ(SetFilename(path), E_FAIL);
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE) << "a refused file is still open";
  }
  EXPECT_EQ(other->Held(), 0);
  EXPECT_EQ(MetaData()[0], L"Film");
  Run();
  EXPECT_THAT(writer_->samples, SizeIs(kFrames));
}

TEST_F(DShowImport, StopsAfterTheBufferDuringWhichTheFilterIsReleased) {
  // Only these two pointers hold the filter.
  filter_ = Create<IImportFilter>(CLSID_CDShowImport);
  task_ = As<ICoreTask>(filter_);
  EXPECT_EQ(Initialize(DataFile("film.avi")), S_OK);
  const KernelHandle ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  writer_->on_write = [&](SAFEARRAY*) {
    WaitForSingleObject(ready.get(), INFINITE);
    filter_.Reset();
  };
  EXPECT_EQ(task_->Start(), S_OK);
  task_.Reset();
  SetEvent(ready.get());
  while (ReferenceCount(writer_.Get()) > 1) Sleep(1);
  EXPECT_EQ(writer_->blocks, 1U);
  EXPECT_TRUE(writer_->closed);
}

// Replaces the system's source filter in the graphs of this process. This source delivers nothing,
// and it hangs while it opens a file named "build". The destructor ends the hang.
class HangingFilters final : public TestObject<IClassFactory> {
 public:
  HangingFilters() {
    while (!known_) Sleep(1);
  }
  ~HangingFilters() override {
    SetEvent(end_.get());
    while (hanging_ > 0) Sleep(1);
  }

  int hanging() const { return hanging_; }

  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return ComPtr<GraphFilter>(new Source(*this))->QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

 private:
  void Hang() {
    ++hanging_;
    WaitForSingleObject(end_.get(), INFINITE);
    --hanging_;
  }

  class Source final : public GraphFilter, public IFileSourceFilter {
   public:
    explicit Source(HangingFilters& owner) : owner_(owner) {
      WAVEFORMATEX format = {WAVE_FORMAT_PCM, 1, 8000, 16000, 2, 16, 0};
      AddPin<OutputPin>(std::vector<AudioType>{AudioType(format)}, 4096L);
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
      if (!IsEqualIID(iid, IID_IFileSourceFilter)) return GraphFilter::QueryInterface(iid, object);
      *object = static_cast<IFileSourceFilter*>(this);
      AddRef();
      return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return GraphFilter::AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return GraphFilter::Release(); }

    STDMETHODIMP Load(LPCOLESTR name, const AM_MEDIA_TYPE*) override {
      if (Path(name).filename() == L"build") owner_.Hang();
      return S_OK;
    }
    STDMETHODIMP GetCurFile(LPOLESTR*, AM_MEDIA_TYPE*) override { return E_NOTIMPL; }

   private:
    HangingFilters& owner_;
  };

  const KernelHandle end_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::atomic<int> hanging_ = 0;
  std::atomic<bool> known_ = false;
  // Registers the class in the multithreaded apartment, where the engine builds its graphs.
  const std::jthread apartment_{[this] {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    DWORD cookie = 0;
    Check(CoRegisterClassObject(CLSID_AsyncReader, this, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                &cookie));
    known_ = true;
    WaitForSingleObject(end_.get(), INFINITE);
    CoRevokeClassObject(cookie);
    CoUninitialize();
  }};
};

TEST_F(DShowImport, AbandonsFiltersThatHang) {
  const HangingFilters filters;
  EXPECT_EQ(Initialize(Write(L"run", film_)), S_OK);
  EXPECT_EQ(task_->Start(), S_OK);
  const auto other = Create<IImportFilter>(CLSID_CDShowImport);
  EXPECT_EQ(other->QueryCanLoad(Bstr(Write(L"build", film_))), E_FAIL);
  EXPECT_TRUE(WaitForTask(task_.Get()));
  EXPECT_LT(Progress(), 1.0F);
  EXPECT_TRUE(writer_->closed);
  EXPECT_EQ(filters.hanging(), 1);
}

TEST_F(DShowImport, ReadsFilesThatAnotherProgramWrites) {
  const std::wstring path = Write(L"a.wav", WavFile(10));
  const FileHandle other(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(other);
  Import(path);
  EXPECT_THAT(writer_->samples, SizeIs(20));
}

}  // namespace
}  // namespace marlinda::testing
