// A client of one import filter, with a writer that notes what it is given.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {

class ImportClient : public ::testing::Test {
 protected:
  explicit ImportClient(REFCLSID clsid) : filter_(Create<IImportFilter>(clsid)) {}

  HRESULT QueryCanLoad(const std::filesystem::path& path) {
    return filter_->QueryCanLoad(Bstr(path.wstring()));
  }
  HRESULT Initialize(const std::filesystem::path& path) {
    return filter_->Initialize(Bstr(path.wstring()), writer_.Get());
  }
  void Run() {
    ASSERT_EQ(task_->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task_.Get()));
    EXPECT_TRUE(writer_->closed);
    ASSERT_EQ(writer_->threads.size(), 1U);
    EXPECT_NE(writer_->threads[0], GetCurrentThreadId());
  }
  // Into a new writer.
  void Import(const std::filesystem::path& path) {
    writer_ = MakeObject<RecordingWriter>();
    ASSERT_EQ(Initialize(path), S_OK);
    Run();
  }
  // The writer fails, and resizes every array that it is given.
  void HarmArrays() {
    writer_ = MakeObject<RecordingWriter>();
    writer_->result = E_FAIL;
    writer_->on_write = [this](SAFEARRAY* array) {
      SAFEARRAYBOUND bound = {writer_->blocks % 2 == 0 ? 3U : 100000U, 7};
      EXPECT_EQ(SafeArrayRedim(array, &bound), DISP_E_ARRAYISLOCKED);
    };
  }
  std::vector<std::wstring> MetaData() {
    Bstr title, artist, album, year, genre;
    EXPECT_EQ(tags_->GetMetaData(title.Receive(), artist.Receive(), album.Receive(), year.Receive(),
                                 genre.Receive()),
              S_OK);
    return {title.str(), artist.str(), album.str(), year.str(), genre.str()};
  }
  // Rate, channels, bits, bytes per second.
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
  // -1 where there is none.
  float Progress() {
    float progress = -1;
    return SUCCEEDED(task_->GetProgress(&progress)) ? progress : -1;
  }

  ComPtr<IImportFilter> filter_;
  ComPtr<ICoreTask> task_ = As<ICoreTask>(filter_);
  const ComPtr<IMetaDataReader> tags_ = As<IMetaDataReader>(filter_);
  ComPtr<RecordingWriter> writer_ = MakeObject<RecordingWriter>();
};

}  // namespace marlinda::testing
