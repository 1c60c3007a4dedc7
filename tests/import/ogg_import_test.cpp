// The Ogg import as a client drives it: real files, a writer that notes what it is given.
#include <gmock/gmock.h>

#include <algorithm>
#include <span>

#include "core/import_section.h"
#include "tests/import/import_client.h"
#include "tests/import/ogg_files.h"

namespace marlinda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

class OggImport : public ImportClient {
 protected:
  OggImport() : ImportClient(CLSID_COggImport) {}
};

TEST_F(OggImport, GivesTheWriterTheDecodedSamplesBlockByBlockOnOneThreadOfItsOwn) {
  const auto expect = [&](const std::filesystem::path& path, __int64 announced, float progress) {
    SCOPED_TRACE(path);
    Import(path);
    EXPECT_EQ(Total(), announced);
    EXPECT_FLOAT_EQ(Progress(), progress);
    const Decoded expected = DecodeWithLibrary(path);
    EXPECT_EQ(writer_->samples_per_sec, expected.samples_per_sec);
    EXPECT_EQ(writer_->channels, expected.channels);
    EXPECT_EQ(writer_->block_sizes, expected.block_sizes);
    std::vector<float> samples;
    for (const int sample : expected.samples) {
      samples.push_back(static_cast<float>(sample / 32767.0));
    }
    EXPECT_TRUE(writer_->samples == samples) << "other samples than the library's";
  };
  expect(DataFile("six_channels.ogg"), 24000, 1);
  expect(DataFile("no_samples.ogg"), 0, -1);
  EXPECT_THAT(writer_->calls, ElementsAre("SetFormat", "OpenDevice", "CloseDevice"));
  // Progress shows that a part is left out.
  const TemporaryOgg chain(Chained("stereo.ogg", "mono.ogg"));
  expect(chain.path(), 44100, 44100 / (44100 + 66150.0F));
  ASSERT_EQ(Initialize(chain.path()), S_OK);
  EXPECT_EQ(As<IImportSection>(filter_)->QueryCanSetSection(), S_FALSE);
  Import(DataFile("stereo.ogg"));
  const std::vector<float> whole = std::move(writer_->samples);
  writer_ = MakeObject<RecordingWriter>();
  ASSERT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  ASSERT_EQ(As<IImportSection>(filter_)->QueryCanSetSection(), S_OK);
  ASSERT_EQ(As<IImportSection>(filter_)->SetSection(12345, 20000), S_OK);
  Run();
  EXPECT_TRUE(std::ranges::equal(writer_->samples, std::span(whole).subspan(2 * 12345, 40000)));
  EXPECT_EQ(Total(), 20000);
  EXPECT_EQ(Progress(), 1);
  Bytes damaged = ReadData(kDemoPiece);
  const auto [begin, end] = MiddlePage(damaged);
  damaged.erase(damaged.begin() + begin, damaged.begin() + end);
  const TemporaryOgg hole(damaged);
  const float part = static_cast<float>(DecodeWithLibrary(hole.path()).samples.size()) / 2;
  Import(hole.path());
  EXPECT_FLOAT_EQ(Progress(), part / static_cast<float>(Total()));
  // The file holds more samples than its last position announces; the last block is not cut.
  Import(TemporaryOgg(WithLastPosition("stereo.ogg", 1000)).path());
  EXPECT_EQ(Total(), 1000);
  EXPECT_EQ(Progress(), 1.0F);
  EXPECT_LT(writer_->samples.size() - writer_->block_sizes.back(), 2U * 1000);
  EXPECT_GT(writer_->samples.size(), 2U * 1000);
}

TEST_F(OggImport, AcceptsOggVorbisFilesAloneAndHoldsNoneOpen) {
  const std::filesystem::path missing = std::filesystem::temp_directory_path() / "tessaly-none.ogg";
  EXPECT_EQ(QueryCanLoad(missing), S_FALSE);
  EXPECT_EQ(QueryCanLoad(missing.parent_path()), S_FALSE);
  EXPECT_EQ(filter_->QueryCanLoad(nullptr), S_FALSE);
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  EXPECT_EQ(Initialize(missing), E_FAIL);
  EXPECT_EQ(Total(), 0);
  EXPECT_EQ(task_->Start(), E_FAIL);
  const Bytes stereo = ReadData("stereo.ogg");
  const auto expect = [&](const Bytes& bytes, HRESULT can_load, HRESULT initialized) {
    SCOPED_TRACE(bytes.size());
    const TemporaryOgg file(bytes);
    EXPECT_EQ(QueryCanLoad(file.path()), can_load);
    EXPECT_EQ(tags_->SetFilename(Bstr(file.path().wstring())), can_load);
    EXPECT_EQ(Initialize(file.path()), initialized);
    std::error_code held;
    EXPECT_EQ(std::filesystem::remove(file.path(), held), FAILED(initialized)) << "open or not";
    Initialize(missing);
    EXPECT_NE(std::filesystem::remove(file.path()), FAILED(initialized)) << "still open";
  };
  expect({stereo.begin(), stereo.begin() + 3000}, E_FAIL, E_FAIL);
  expect(WithCodebooks(100, 8191, 10), S_OK, E_OUTOFMEMORY);
  expect(WithCodebooks(1, 1, 0, Bytes(70'000'000)), E_OUTOFMEMORY, E_OUTOFMEMORY);
  expect(stereo, S_OK, S_OK);
}

TEST_F(OggImport, ReportsTheSourceAndTheCommentsOfTheFileNamedLast) {
  EXPECT_THAT(Format(), Each(0));
  EXPECT_THAT(MetaData(), Each(std::wstring()));
  EXPECT_EQ(Total(), 0);
  EXPECT_EQ(Initialize(DataFile("six_channels.ogg")), S_OK);
  EXPECT_THAT(Format(), ElementsAre(48000, 6, 16, 120000 / 8));
  EXPECT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  EXPECT_THAT(MetaData(), ElementsAre(L"A title", L"Someone", L"Ein Album", L"2009", L"Ambient"));
  // Without a change to what is going to be imported.
  EXPECT_EQ(tags_->SetFilename(Bstr(DataFile("other.ogg").wstring())), S_OK);
  EXPECT_EQ(tags_->SetFilename(Bstr(L"no such file")), E_FAIL);
  EXPECT_THAT(MetaData(), ElementsAre(L"\u00DCberraschung", L"Ren\u00E9e", L"", L"1998", L""));
  EXPECT_EQ(Total(), 44100);
  SHORT merit = 0;
  EXPECT_EQ(filter_->GetMerit(&merit), S_OK);
  EXPECT_EQ(merit, 200);
}

TEST_F(OggImport, AWriterMayFailAndCannotResizeItsArray) {
  HarmArrays();
  ASSERT_EQ(Initialize(DataFile("stereo.ogg")), S_OK);
  Run();
  EXPECT_EQ(writer_->block_sizes, DecodeWithLibrary(DataFile("stereo.ogg")).block_sizes);
}

}  // namespace
}  // namespace marlinda::testing
