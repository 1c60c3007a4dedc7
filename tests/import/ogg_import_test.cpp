// The Ogg import as a client drives it: real files, a writer that notes what it is given.
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>

#include "tests/import/ogg_files.h"
#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

class OggImport : public ::testing::Test {
 protected:
  HRESULT Initialize(const std::filesystem::path& path) {
    return filter_->Initialize(Bstr(path.wstring()), writer_.Get());
  }
  HRESULT QueryCanLoad(const std::filesystem::path& path) {
    return filter_->QueryCanLoad(Bstr(path.wstring()));
  }

  void StartAndWait() {
    ASSERT_EQ(task_->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task_.Get()));
  }
  void Import(const std::filesystem::path& path) {
    ASSERT_EQ(Initialize(path), S_OK);
    StartAndWait();
  }

  float Progress() {
    float progress = -1;
    EXPECT_EQ(task_->GetProgress(&progress), S_OK);
    return progress;
  }
  std::wstring Name() {
    Bstr name;
    EXPECT_EQ(task_->GetName(name.Receive()), S_OK);
    return name.str();
  }
  std::vector<std::wstring> MetaData() {
    Bstr title, artist, album, year, genre;
    EXPECT_EQ(metadata_->GetMetaData(title.Receive(), artist.Receive(), album.Receive(),
                                     year.Receive(), genre.Receive()),
              S_OK);
    return {title.str(), artist.str(), album.str(), year.str(), genre.str()};
  }
  __int64 SourceSampleCount() {
    __int64 count = -1;
    EXPECT_EQ(filter_->GetSourceSampleCount(&count), S_OK);
    return count;
  }

  // What the library delivers until the format changes, as the engine's floats.
  static void ExpectDelivered(const RecordingWriter& writer, const Decoded& decoded) {
    std::vector<float> samples;
    std::vector<std::size_t> block_sizes;
    for (const DecodedLink& link : decoded.links) {
      if (link.samples_per_sec != writer.samples_per_sec || link.channels != writer.channels) break;
      for (const int sample : link.samples) samples.push_back(static_cast<float>(sample / 32767.0));
      block_sizes.insert(block_sizes.end(), link.block_sizes.begin(), link.block_sizes.end());
    }
    EXPECT_EQ(writer.block_sizes, block_sizes);
    EXPECT_TRUE(writer.samples == samples) << "other samples than the library's";
  }

  ComPtr<IImportFilter> filter_ = Create<IImportFilter>(CLSID_COggImport);
  ComPtr<ICoreTask> task_ = As<ICoreTask>(filter_);
  ComPtr<IExFormatInfo> format_ = As<IExFormatInfo>(filter_);
  ComPtr<IMetaDataReader> metadata_ = As<IMetaDataReader>(filter_);
  ComPtr<RecordingWriter> writer_ = MakeObject<RecordingWriter>();
};

TEST_F(OggImport, GivesTheWriterTheDecodedSamplesBlockByBlockOnOneThreadOfItsOwn) {
  for (const std::string& name : WholeFiles()) {
    SCOPED_TRACE(name);
    writer_ = MakeObject<RecordingWriter>();
    Import(DataFile(name));
    ExpectDelivered(*writer_.Get(), DecodeWithLibrary(DataFile(name)));
    if (name == "no_samples.ogg") {
      float progress = 0;
      EXPECT_EQ(task_->GetProgress(&progress), E_FAIL);
      EXPECT_THAT(writer_->calls, ElementsAre("SetFormat", "OpenDevice", "CloseDevice"));
    } else {
      EXPECT_THAT(writer_->calls,
                  ElementsAre("SetFormat", "OpenDevice", "WriteAudio", "CloseDevice"));
      EXPECT_EQ(Progress(), 1.0F);
    }
    EXPECT_THAT(writer_->threads, SizeIs(1));
    EXPECT_NE(writer_->threads[0], GetCurrentThreadId());
    EXPECT_THAT(writer_->block_sizes, Each(::testing::Le(16384U)));
  }
}

TEST_F(OggImport, AcceptsOggVorbisFilesAloneAndHoldsNoneOpen) {
  const TemporaryOgg text({'n', 'o', ' ', 'm', 'u', 's', 'i', 'c'});
  const TemporaryOgg empty({});
  const TemporaryOgg cut_short(Truncated("stereo.ogg", 3000));
  const std::filesystem::path missing = text.path().parent_path() / "tessaly-no-such-file.ogg";
  EXPECT_EQ(QueryCanLoad(DataFile("stereo.ogg")), S_OK);
  EXPECT_EQ(QueryCanLoad(DataFile("no_samples.ogg")), S_OK);
  EXPECT_EQ(QueryCanLoad(missing), S_FALSE);
  EXPECT_EQ(QueryCanLoad(text.path().parent_path()), S_FALSE);
  EXPECT_EQ(filter_->QueryCanLoad(nullptr), S_FALSE);
  for (const auto& path : {text.path(), empty.path(), cut_short.path()}) {
    EXPECT_EQ(QueryCanLoad(path), E_FAIL);
    EXPECT_EQ(Initialize(path), E_FAIL);
    EXPECT_EQ(metadata_->SetFilename(Bstr(path.wstring())), E_FAIL);
    EXPECT_TRUE(std::filesystem::remove(path)) << "a refused file is still open";
  }
  EXPECT_EQ(Initialize(missing), E_FAIL);
  EXPECT_EQ(metadata_->SetFilename(nullptr), E_FAIL);
}

TEST_F(OggImport, ReportsNothingBeforeInitializeAndTheSourceAfterIt) {
  LONG rate = -1;
  SHORT channels = -1;
  SHORT bits = -1;
  LONG bytes_per_sec = -1;
  const auto read_format = [&] {
    EXPECT_EQ(format_->GetFormat(&rate, &channels), S_OK);
    EXPECT_EQ(format_->GetBitsPerSample(&bits), S_OK);
    EXPECT_EQ(format_->GetAvgBytesPerSec(&bytes_per_sec), S_OK);
    return std::vector<LONG>{rate, channels, bits, bytes_per_sec};
  };
  EXPECT_THAT(read_format(), ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(SourceSampleCount(), 0);
  EXPECT_THAT(MetaData(), Each(std::wstring()));
  EXPECT_EQ(Name(), L"Loading ");

  const std::filesystem::path path = DataFile("six_channels.ogg");
  EXPECT_EQ(Initialize(path), S_OK);
  EXPECT_THAT(read_format(), ElementsAre(48000, 6, 16, 120000 / 8));
  EXPECT_EQ(SourceSampleCount(), 24000);
  EXPECT_EQ(Name(), L"Loading " + path.wstring());

  SHORT merit = 0;
  EXPECT_EQ(filter_->GetMerit(&merit), S_OK);
  EXPECT_EQ(merit, 200);
  Bstr fragment, patterns;
  EXPECT_EQ(filter_->GetFilterStrings(fragment.Receive(), patterns.Receive()), S_OK);
  EXPECT_EQ(fragment.str(), L"Ogg Vorbis Files (*.ogg)|*.ogg|");
  EXPECT_EQ(patterns.str(), L"*.ogg");
}

TEST_F(OggImport, TakesTheMetadataFromTheCommentsOfTheFileNamedLast) {
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  EXPECT_THAT(MetaData(), ElementsAre(L"A title", L"Someone", L"Ein Album", L"2009", L"Ambient"));
  // Without a writer, and without a change to what is going to be imported.
  EXPECT_EQ(metadata_->SetFilename(Bstr(DataFile("other.ogg").wstring())), S_OK);
  const auto other = {L"\u00DCberraschung", L"Ren\u00E9e", L"", L"1998", L""};
  EXPECT_THAT(MetaData(), ::testing::ElementsAreArray(other));
  EXPECT_EQ(SourceSampleCount(), 44100);
  EXPECT_EQ(metadata_->SetFilename(Bstr(L"no such file")), E_FAIL);
  EXPECT_THAT(MetaData(), ::testing::ElementsAreArray(other));
}

TEST_F(OggImport, AFailedInitializeTakesNameAndWriterAndHasNothingToStart) {
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  EXPECT_EQ(filter_->Initialize(Bstr(DataFile("stereo.ogg").wstring()), nullptr), S_OK);
  EXPECT_EQ(ReferenceCount(writer_.Get()), 1U);
  EXPECT_EQ(SourceSampleCount(), 44100);
  EXPECT_EQ(MetaData()[0], L"A title");
  EXPECT_EQ(task_->Start(), E_FAIL) << "without a writer";
  VARIANT_BOOL running = VARIANT_TRUE;
  EXPECT_EQ(task_->QueryIsTaskRunning(&running), S_OK);
  EXPECT_EQ(running, VARIANT_FALSE);
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  const auto other = MakeObject<RecordingWriter>();
  EXPECT_EQ(filter_->Initialize(Bstr(L"no such file"), other.Get()), E_FAIL);
  EXPECT_EQ(ReferenceCount(other.Get()), 2U);
  EXPECT_EQ(ReferenceCount(writer_.Get()), 1U);
  Bstr name;
  EXPECT_EQ(task_->GetName(name.Receive()), S_OK);
  EXPECT_EQ(name.str(), L"Loading no such file");
  EXPECT_EQ(task_->Start(), E_FAIL);
  EXPECT_EQ(SourceSampleCount(), 0);
}

TEST_F(OggImport, ServesAnotherFileAfterARunAndForgetsItsCancel) {
  EXPECT_EQ(Initialize(DataFile("mono.ogg")), S_OK);
  EXPECT_EQ(task_->Cancel(), S_OK);
  StartAndWait();
  EXPECT_EQ(writer_->blocks, 1U);
  const auto second = MakeObject<RecordingWriter>();
  EXPECT_EQ(filter_->Initialize(Bstr(DataFile("stereo.ogg").wstring()), second.Get()), S_OK);
  EXPECT_EQ(Progress(), 0.0F);
  StartAndWait();
  ExpectDelivered(*second.Get(), DecodeWithLibrary(DataFile("stereo.ogg")));
  EXPECT_EQ(writer_->blocks, 1U);
}

TEST_F(OggImport, AWriterMayFailAndChangeItsArray) {
  const std::vector<std::size_t> sizes =
      DecodeWithLibrary(DataFile("stereo.ogg")).links[0].block_sizes;
  writer_->result = E_FAIL;
  writer_->on_write = [&](SAFEARRAY* array) {
    SAFEARRAYBOUND bound = {writer_->blocks % 2 == 0 ? 3U : 100000U, 7};
    EXPECT_EQ(SafeArrayRedim(array, &bound), S_OK);
  };
  Import(DataFile("stereo.ogg"));
  EXPECT_EQ(writer_->block_sizes, sizes);
  EXPECT_TRUE(writer_->closed);
}

TEST_F(OggImport, ClosesFilesThatItNoLongerNeeds) {
  const TemporaryOgg first(ReadAll(DataFile("mono.ogg")));
  const TemporaryOgg second(ReadAll(DataFile("stereo.ogg")));
  const TemporaryOgg third(ReadAll(DataFile("other.ogg")));
  EXPECT_EQ(QueryCanLoad(first.path()), S_OK);
  EXPECT_EQ(Initialize(first.path()), S_OK);
  std::error_code error;
  EXPECT_FALSE(std::filesystem::remove(first.path(), error)) << "nothing holds the file";
  EXPECT_EQ(Initialize(second.path()), S_OK);
  EXPECT_TRUE(std::filesystem::remove(first.path()));
  StartAndWait();
  EXPECT_TRUE(std::filesystem::remove(second.path())) << "open after the run";
  EXPECT_EQ(Initialize(third.path()), S_OK);
  task_.Reset();
  format_.Reset();
  metadata_.Reset();
  filter_.Reset();
  EXPECT_TRUE(std::filesystem::remove(third.path())) << "open after the last release";
  EXPECT_EQ(ReferenceCount(writer_.Get()), 1U);
}

TEST_F(OggImport, StopsAtTheLengthThatTheFileAnnounces) {
  // The file holds more samples than its last position announces.
  const TemporaryOgg file(WithLastPosition("stereo.ogg", 1000));
  const DecodedLink all = DecodeWithLibrary(file.path()).links.at(0);
  ASSERT_GT(all.samples.size(), 2U * 10000);
  Import(file.path());
  EXPECT_EQ(SourceSampleCount(), 1000);
  EXPECT_GE(writer_->samples.size(), 2U * 1000);
  EXPECT_LT(writer_->samples.size() - writer_->block_sizes.back(), 2U * 1000);
  EXPECT_GT(writer_->samples.size(), 2U * 1000) << "the last block is not cut";
  EXPECT_EQ(Progress(), 1.0F);

  const TemporaryOgg gigantic(WithLastPosition("stereo.ogg", std::int64_t{1} << 60));
  Import(gigantic.path());
  EXPECT_GT(SourceSampleCount(), std::int64_t{1} << 59);
  EXPECT_LT(Progress(), 0.001F);
}

TEST_F(OggImport, DeliversWhatIsLeftOfDamagedFilesAndStopsWhereAChainChangesItsFormat) {
  const TemporaryOgg files[] = {
      TemporaryOgg(Truncated("stereo.ogg", 12000)),
      TemporaryOgg(WithPacketsScrambled("six_channels.ogg", 2)),
      TemporaryOgg(WithPageMissing(kDemoPiece)),
      TemporaryOgg(Chained("stereo.ogg", "other.ogg")),
      TemporaryOgg(Chained("mono.ogg", "rate_8000.ogg")),
      TemporaryOgg(Chained("no_samples.ogg", "stereo.ogg")),
  };
  for (const TemporaryOgg& file : files) {
    SCOPED_TRACE(&file - files);
    writer_ = MakeObject<RecordingWriter>();
    Import(file.path());
    const Decoded expected = DecodeWithLibrary(file.path());
    EXPECT_EQ(SourceSampleCount(), expected.total_frames);
    ExpectDelivered(*writer_.Get(), expected);
    EXPECT_TRUE(writer_->closed);
    EXPECT_LE(Progress(), 1.0F);
  }
}

}  // namespace
}  // namespace marlinda::testing
