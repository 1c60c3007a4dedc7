// The DirectShow import as a client drives it: files written by the engine's own export and by the
// test, both those that are read directly and those that go through a filter graph.
#include <gmock/gmock.h>

#include <cmath>
#include <numeric>

#include "core/handle.h"
#include "core/samples/sample_converter.h"
#include "tests/export/riff_builder.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"
#include "tests/support/ramp_source.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;
using ::testing::SizeIs;

constexpr std::size_t kMuLawFrames = 100000;

// Every code of mu-law in turn: compressed, so that the system's filters decode it, and known to
// the last bit.
riff::Bytes MuLawFile(std::size_t frames = kMuLawFrames) {
  riff::Bytes codes(frames, 0);
  for (std::size_t i = 0; i < frames; ++i) codes[i] = static_cast<unsigned char>(i);
  return riff::Wav(riff::PlainFormat(7, 1, 8000, 1, 8) + riff::U16(0), codes,
                   riff::Info("Compressed"));
}

float MuLaw(std::size_t frame) {
  const int code = ~static_cast<int>(frame) & 0xFF;
  const int magnitude = (((code & 0x0F) << 3) + 0x84) << ((code & 0x70) >> 4);
  const int value = (code & 0x80) != 0 ? 0x84 - magnitude : magnitude - 0x84;
  return static_cast<float>(value / 32767.0);
}

class DShowImport : public ::testing::Test {
 protected:
  std::wstring Write(const std::wstring& name, const riff::Bytes& bytes) {
    WriteFileBytes(folder_.File(name), bytes);
    return folder_.File(name);
  }
  HRESULT Initialize(const std::wstring& path) {
    return filter_->Initialize(Bstr(path), writer_.Get());
  }
  HRESULT QueryCanLoad(const std::wstring& path) { return filter_->QueryCanLoad(Bstr(path)); }
  void StartAndWait() {
    ASSERT_EQ(task_->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task_.Get()));
  }
  void Import(const std::wstring& path) {
    ASSERT_EQ(Initialize(path), S_OK);
    StartAndWait();
  }
  std::vector<std::wstring> MetaData() {
    Bstr title, artist, album, year, genre;
    EXPECT_EQ(
        As<IMetaDataReader>(filter_)->GetMetaData(title.Receive(), artist.Receive(),
                                                  album.Receive(), year.Receive(), genre.Receive()),
        S_OK);
    return {title.str(), artist.str(), album.str(), year.str(), genre.str()};
  }
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
  float Progress() {
    float progress = -1;
    EXPECT_EQ(task_->GetProgress(&progress), S_OK);
    return progress;
  }
  TemporaryFolder folder_;
  ComPtr<IImportFilter> filter_ = Create<IImportFilter>(CLSID_CDShowImport);
  ComPtr<ICoreTask> task_ = As<ICoreTask>(filter_);
  ComPtr<RecordingWriter> writer_ = MakeObject<RecordingWriter>();
};

TEST_F(DShowImport, ReadsBackAllThatTheWavExportWrites) {
  for (const SHORT bits : {16, 24, 32}) {
    for (const SHORT channels : {1, 6}) {
      SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(channels) + " channels");
      const auto source = RampSource::Make('A', channels);
      const std::wstring path = folder_.File(std::to_wstring(bits) + std::to_wstring(channels));
      const auto wav = Create<IExportFilter>(CLSID_CWavExportFilter);
      ASSERT_EQ(wav->Initialize(Bstr(path), source.Get()), S_OK);
      wav->SetBitsPerSample(bits);
      const auto labels = As<ILabelSupport>(wav);
      labels->AddLabel(300, Bstr(L"Second \u00E9"));
      labels->AddLabel(100, Bstr(L""));
      const auto markers = As<ISectionMarkerSupport>(wav);
      markers->AddSectionMarker(200, 250, Bstr(L"Region"));
      markers->AddSectionMarker(100, 100, Bstr(L""));
      As<IMetaDataWriter>(wav)->SetMetaData(Bstr(L"Title"), Bstr(L"Artist"), Bstr(L"Album"),
                                            Bstr(L"2009"), Bstr(L"Genre"));
      As<IAcidWriter>(wav)->SetAcidData(-3, 7, 8, 21, 98.25F);
      ASSERT_EQ(As<ICoreTask>(wav)->Start(), S_OK);
      ASSERT_TRUE(WaitForTask(As<ICoreTask>(wav).Get()));

      writer_ = MakeObject<RecordingWriter>();
      Import(path);
      std::vector<float> expected;
      __int64 frames = 0;
      source->GetSampleCount(&frames);
      for (__int64 frame = 0; frame < frames; ++frame) {
        for (int channel = 0; channel < channels; ++channel) {
          expected.push_back(RampSource::Sample('A', frame, channel));
        }
      }
      std::vector<std::byte> codes(expected.size() * 4);
      ConvertFloatToPcm(expected, codes, bits);
      ConvertPcmToFloat(codes, expected, bits);
      EXPECT_TRUE(writer_->samples == expected) << "other samples";
      EXPECT_EQ(Total(), frames);

      LONG count = 0;
      __int64 begin = 0, end = 0;
      Bstr name;
      const auto read_labels = As<ILabelSupport>(filter_);
      EXPECT_EQ(read_labels->GetLabelCount(&count), S_OK);
      EXPECT_EQ(count, 2);
      EXPECT_EQ(read_labels->GetLabel(0, &begin, name.Receive()), S_OK);
      EXPECT_TRUE(begin == 300 && name.str() == L"Second \u00E9");
      EXPECT_EQ(read_labels->GetLabel(1, &begin, name.Receive()), S_OK);
      EXPECT_TRUE(begin == 100 && name.str().empty());
      const auto read_markers = As<ISectionMarkerSupport>(filter_);
      EXPECT_EQ(read_markers->GetMarkerCount(&count), S_OK);
      EXPECT_EQ(count, 2);
      EXPECT_EQ(read_markers->GetSectionMarker(0, &begin, &end, name.Receive()), S_OK);
      EXPECT_TRUE(begin == 200 && end == 250 && name.str() == L"Region");
      EXPECT_EQ(read_markers->GetSectionMarker(1, &begin, &end, name.Receive()), S_OK);
      EXPECT_TRUE(begin == 100 && end == 100 && name.str().empty());
      EXPECT_THAT(MetaData(), ElementsAre(L"Title", L"Artist", L"Album", L"2009", L"Genre"));
      SHORT root = 0, beats = 0, delimiter = 0;
      LONG beat_count = 0;
      float tempo = 0;
      EXPECT_EQ(
          As<IAcidReader>(filter_)->GetAcidData(&root, &beats, &delimiter, &beat_count, &tempo),
          S_OK);
      EXPECT_TRUE(root == -3 && beats == 7 && delimiter == 8 && beat_count == 21 &&
                  tempo == 98.25F);
    }
  }
}

TEST_F(DShowImport, Puts16BitCodesIntoA16BitPoolAsTheyAre) {
  riff::Bytes codes;
  for (std::uint32_t code = 0; code < 65536; ++code) codes = std::move(codes) + riff::U16(code);
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  ASSERT_EQ(pool->SetBitDepth(16, 0), S_OK);
  ASSERT_EQ(
      filter_->Initialize(
          Bstr(Write(L"all.wav", riff::Wav(riff::PlainFormat(1, 1, 44100, 2, 16), codes, {}))),
          As<IAudioWriter>(pool).Get()),
      S_OK);
  StartAndWait();
  ComPtr<IAudioReader> reader;
  ASSERT_EQ(pool->CreateLastReader(reader.GetAddressOf()), S_OK);
  const Floats samples(65536);
  ASSERT_EQ(reader->OpenDevice(), S_OK);
  ASSERT_EQ(reader->ReadAudio(0, samples), S_OK);
  EXPECT_EQ(reader->CloseDevice(), S_OK);
  std::vector<std::byte> kept(codes.size());
  ConvertFloatToPcm(samples.values(), kept, 16);
  EXPECT_EQ(std::memcmp(kept.data(), codes.data(), codes.size()), 0);
}

TEST_F(DShowImport, WritesModerateBlocksOnOneWorkerDirectlyAndThroughAGraph) {
  const riff::Bytes plain =
      riff::Wav(riff::PlainFormat(1, 2, 44100, 2, 16), riff::Bytes(400000, 0), riff::Info("Plain"));
  for (const bool compressed : {false, true}) {
    SCOPED_TRACE(compressed);
    const std::wstring path = Write(L"a.wav", compressed ? MuLawFile() : plain);
    writer_ = MakeObject<RecordingWriter>();
    EXPECT_EQ(QueryCanLoad(path), S_OK);
    EXPECT_EQ(Initialize(path), S_OK);
    EXPECT_THAT(MetaData()[0], compressed ? L"Compressed" : L"Plain");
    EXPECT_EQ(Total(), static_cast<__int64>(kMuLawFrames));
    EXPECT_EQ(Progress(), 0.0F);
    std::error_code error;
    EXPECT_EQ(DeleteFileW(path.c_str()), FALSE) << "nothing holds the file";
    StartAndWait();
    EXPECT_EQ(Progress(), 1.0F);
    EXPECT_EQ(Total(), static_cast<__int64>(kMuLawFrames));
    EXPECT_THAT(writer_->calls,
                ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "CloseDevice"));
    EXPECT_THAT(writer_->threads, SizeIs(1));
    EXPECT_NE(writer_->threads.at(0), GetCurrentThreadId());
    EXPECT_THAT(writer_->block_sizes, Each(Le(16384U)));
    EXPECT_GT(std::accumulate(writer_->block_sizes.begin(), writer_->block_sizes.end(), 0U) /
                  writer_->block_sizes.size(),
              1000U);
    if (compressed) {
      EXPECT_THAT(Format(),
                  ElementsAre(8000, 1, 16, ::testing::AllOf(::testing::Ge(8000), Le(8016))));
      ASSERT_EQ(writer_->samples.size(), kMuLawFrames);
      for (std::size_t i = 0; i < kMuLawFrames; ++i) ASSERT_EQ(writer_->samples[i], MuLaw(i)) << i;
    } else {
      EXPECT_THAT(Format(), ElementsAre(44100, 2, 16, 176400));
    }
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE) << "open after the run";
  }
}

TEST_F(DShowImport, RefusesWhatHasNoSoundAndStaysAsItWas) {
  const std::wstring good = Write(L"good.wav", MuLawFile(100));
  const std::wstring text =
      Write(L"text.wav", riff::Text("no music at all, only a line of text\n"));
  const std::wstring no_rate =
      Write(L"rate.wav", riff::Wav(riff::PlainFormat(1, 2, 0, 2, 16), riff::Bytes(8, 0), {}));
  const std::wstring empty = Write(L"empty.mp3", {});
  EXPECT_EQ(Initialize(good), S_OK);
  EXPECT_EQ(QueryCanLoad(folder_.File(L"missing.wav")), S_FALSE);
  EXPECT_EQ(QueryCanLoad(folder_.path()), S_FALSE);
  EXPECT_EQ(filter_->QueryCanLoad(nullptr), S_FALSE);
  const auto other = MakeObject<RecordingWriter>();
  for (const std::wstring& path : {text, no_rate, empty}) {
    EXPECT_EQ(QueryCanLoad(path), E_FAIL);
    EXPECT_EQ(filter_->Initialize(Bstr(path), other.Get()), E_FAIL);
    EXPECT_EQ(As<IMetaDataReader>(filter_)->SetFilename(Bstr(path)), E_FAIL);
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE) << "a refused file is still open";
  }
  EXPECT_EQ(ReferenceCount(other.Get()), 1U);
  EXPECT_THAT(MetaData()[0], L"Compressed");
  StartAndWait();
  EXPECT_EQ(writer_->samples.size(), 100U);
}

TEST_F(DShowImport, ReportsNothingBeforeItHasAFile) {
  EXPECT_THAT(Format(), Each(0));
  EXPECT_EQ(Total(), 0);
  EXPECT_THAT(MetaData(), Each(std::wstring()));
  VARIANT_BOOL loop = VARIANT_TRUE;
  EXPECT_EQ(As<IAcidReader>(filter_)->QueryAcidDataAvailable(&loop), S_OK);
  EXPECT_EQ(loop, VARIANT_FALSE);
  SHORT s = 0;
  LONG count = -1;
  float tempo = 0;
  EXPECT_EQ(As<IAcidReader>(filter_)->GetAcidData(&s, &s, &s, &count, &tempo), E_FAIL);

  Bstr fragment, patterns;
  EXPECT_EQ(filter_->GetFilterStrings(fragment.Receive(), patterns.Receive()), S_OK);
  EXPECT_EQ(patterns.str(), L"*.wav;*.aif;*.aiff;*.mp3;*.mpg;*.mpeg;*.wma;*.au;*.avi;*.wmv");
  EXPECT_THAT(fragment.str(), ::testing::StartsWith(L"Wave Audio Files (*.wav)|*.wav|"));
  EXPECT_THAT(fragment.str(), ::testing::EndsWith(L"(*.wmv)|*.wmv|"));
  EXPECT_EQ(std::ranges::count(fragment.str(), L'|'), 16);
  EXPECT_EQ(filter_->GetMerit(&s), S_OK);
  EXPECT_EQ(s, 100);
}

TEST_F(DShowImport, ListsOfLabelsAndMarkersCanBeReadAndNotEdited) {
  const riff::Bytes rest = riff::Chunk("cue ", riff::U32(1) + riff::CuePoint(0, 5, 10, 5)) +
                           riff::List("adtl", riff::Label(0, "Hit"));
  const std::wstring path =
      Write(L"a.wav", riff::Wav(riff::PlainFormat(1, 1, 44100, 2, 16), riff::Bytes(64, 0), rest));
  // Without an import, too.
  EXPECT_EQ(As<IMetaDataReader>(filter_)->SetFilename(Bstr(path)), S_OK);
  EXPECT_EQ(Total(), 0);
  const auto labels = As<ILabelSupport>(filter_);
  const auto markers = As<ISectionMarkerSupport>(filter_);
  LONG count = -1;
  __int64 position = 0;
  Bstr name;
  EXPECT_EQ(labels->AddLabel(1, name), E_NOTIMPL);
  EXPECT_EQ(labels->SetLabel(0, 1, name), E_NOTIMPL);
  EXPECT_EQ(labels->RemoveLabel(0), E_NOTIMPL);
  EXPECT_EQ(labels->RemoveAllLabels(), E_NOTIMPL);
  EXPECT_EQ(labels->GetLabelCount(&count), S_OK);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(labels->GetLabel(-1, &position, name.Receive()), E_INVALIDARG);
  EXPECT_EQ(labels->GetLabel(1, &position, name.Receive()), E_INVALIDARG);
  EXPECT_EQ(labels->GetLabel(0, nullptr, name.Receive()), E_POINTER);
  EXPECT_EQ(markers->AddSectionMarker(1, 2, name), E_NOTIMPL);
  EXPECT_EQ(markers->SetSectionMarker(0, 1, 2, name), E_NOTIMPL);
  EXPECT_EQ(markers->RemoveSectionMarker(0), E_NOTIMPL);
  EXPECT_EQ(markers->RemoveAllSectionMarkers(), E_NOTIMPL);
  EXPECT_EQ(markers->GetMarkerCount(&count), S_OK);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(markers->GetSectionMarker(0, &position, &position, name.Receive()), E_INVALIDARG);
}

TEST_F(DShowImport, ReportsAFileWithoutAWriterAndThenRefusesToStart) {
  std::wstring name = L"a.wav";
  for (const riff::Bytes& file :
       {MuLawFile(), riff::Wav(riff::PlainFormat(1, 1, 8000, 2, 16),
                               riff::Bytes(2 * kMuLawFrames, 0), riff::Info("Compressed"))}) {
    EXPECT_EQ(filter_->Initialize(Bstr(Write(name += L'b', file)), nullptr), S_OK);
    EXPECT_EQ(Total(), static_cast<__int64>(kMuLawFrames));
    EXPECT_EQ(Format()[0], 8000);
    EXPECT_EQ(MetaData()[0], L"Compressed");
    EXPECT_EQ(task_->Start(), E_FAIL);
    VARIANT_BOOL running = VARIANT_TRUE;
    EXPECT_EQ(task_->QueryIsTaskRunning(&running), S_OK);
    EXPECT_EQ(running, VARIANT_FALSE);
    EXPECT_EQ(task_->Cancel(), S_OK);
  }
}

TEST_F(DShowImport, EndsAGraphAfterTheBufferInWhichItIsCancelledOrReleased) {
  const std::wstring path = Write(L"a.wav", MuLawFile());
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

TEST_F(DShowImport, LeavesNoThreadAndNoHandleBehind) {
  const std::wstring plain =
      Write(L"a.wav", riff::Wav(riff::PlainFormat(1, 1, 8000, 2, 16), riff::Bytes(2000, 0), {}));
  const std::wstring compressed = Write(L"b.wav", MuLawFile(1000));
  const auto run = [&](const std::wstring& path, int times) {
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ(QueryCanLoad(path), S_OK);
      Import(path);
    }
  };
  // What the system's filters keep for the whole process comes with the first graphs.
  run(compressed, 3);
  const unsigned threads = CountThreads();
  run(compressed, 10);
  EXPECT_LE(CountThreads(), threads);
  // Wine loses dozens of registry keys whenever filters are looked up, so only plain files count.
  const unsigned handles = CountHandles();
  run(plain, 20);
  EXPECT_LE(CountHandles(), handles + 2);
}

TEST_F(DShowImport, EndsCleanlyWithWhatADamagedFileHolds) {
  riff::Bytes truncated = MuLawFile();
  truncated.resize(truncated.size() / 2);
  riff::Bytes plain = riff::Wav(riff::PlainFormat(1, 2, 44100, 2, 16), riff::Bytes(4000, 1), {});
  plain.resize(plain.size() - 1001);
  Import(Write(L"compressed.wav", truncated));
  EXPECT_GT(writer_->samples.size(), kMuLawFrames / 3);
  EXPECT_LE(writer_->samples.size(), kMuLawFrames / 2 + 100);
  EXPECT_TRUE(writer_->closed);
  writer_ = MakeObject<RecordingWriter>();
  Import(Write(L"plain.wav", plain));
  EXPECT_EQ(writer_->samples.size(), 2U * 749);
  EXPECT_EQ(Progress(), 1.0F);
}

TEST_F(DShowImport, AWriterThatFailsOrResizesDoesNotHurtTheRun) {
  const std::wstring path = Write(L"a.wav", MuLawFile());
  writer_->result = E_FAIL;
  writer_->on_write = [&](SAFEARRAY* array) {
    SAFEARRAYBOUND bound = {writer_->blocks % 2 == 0 ? 3U : 100000U, 7};
    EXPECT_EQ(SafeArrayRedim(array, &bound), S_OK);
  };
  Import(path);
  EXPECT_EQ(writer_->samples.size(), kMuLawFrames);
}

}  // namespace
}  // namespace marlinda::testing
