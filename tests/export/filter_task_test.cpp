// Tests the task contract that all four filters share.
#include <gtest/gtest.h>

#include <thread>

#include "core/handle.h"
#include "tests/export/code_reader.h"
#include "tests/export/mp3_user.h"
#include "tests/import/ogg_files.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

struct FilterCase {
  const char* name;
  const CLSID& clsid;
  const wchar_t* file;
  bool exports;

  friend void PrintTo(const FilterCase& filter, std::ostream* out) { *out << filter.name; }
};

// A filter, its file, and its writer or reader.
class FilterTaskTest : public ::testing::TestWithParam<FilterCase> {
 protected:
  FilterTaskTest() {
    const auto on_array = [this](SAFEARRAY*) {
      ++blocks;
      if (on_block) on_block();
    };
    if (GetParam().exports) {
      const auto reader =
          MakeObject<CodeReader>(CodeReader::Setup{.channels = 2, .frames = 5 * 65536});
      reader->on_read = on_array;
      client = reader;
      return;
    }
    const auto writer = MakeObject<RecordingWriter>();
    writer->on_write = on_array;
    client = writer;
    const bool is_ogg = GetParam().clsid == CLSID_COggImport;
    WriteFileBytes(path, is_ogg
                             ? ReadData("stereo.ogg")
                             : riff::Wav(riff::PlainFormat(1, 1, 8000, 2, 16), Bytes(200000), {}));
  }

  HRESULT Initialize() {
    return GetParam().exports
               ? As<IExportFilter>(task)->Initialize(Bstr(path), As<IAudioReader>(client).Get())
               : As<IImportFilter>(task)->Initialize(Bstr(path), As<IAudioWriter>(client).Get());
  }
  void Run() {
    ASSERT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get()));
  }
  bool IsRunning() {
    VARIANT_BOOL running = 42;
    EXPECT_EQ(task->QueryIsTaskRunning(&running), S_OK);
    EXPECT_TRUE(running == VARIANT_TRUE || running == VARIANT_FALSE);
    return running == VARIANT_TRUE;
  }
  // Returns -1 if GetProgress fails.
  float Progress() {
    float progress = 7;
    return SUCCEEDED(task->GetProgress(&progress)) ? progress : -1;
  }
  std::wstring Name() {
    Bstr name;
    EXPECT_EQ(task->GetName(name.Receive()), S_OK);
    return name.str();
  }
  bool ClientIsReleased() { return ReferenceCount(client.Get()) == 1; }

  const RegisteredEncoder encoder;
  TemporaryFolder folder;
  std::wstring path = folder.File(GetParam().file);
  ComPtr<IUnknown> client;
  std::atomic<int> blocks = 0;
  std::function<void()> on_block;
  ComPtr<ICoreTask> task = Create<ICoreTask>(GetParam().clsid);
};

TEST_P(FilterTaskTest, FailsToStartWithoutAFileAndEndsWithinOneBlockAfterAnEarlierCancel) {
  const std::wstring verb = GetParam().exports ? L"Saving " : L"Loading ";
  EXPECT_EQ(Progress(), -1);
  EXPECT_EQ(Name(), verb);
  EXPECT_EQ(task->Start(), E_FAIL);
  EXPECT_EQ(task->Cancel(), S_OK);
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(Initialize(), S_OK);
  EXPECT_EQ(Progress(), 0.0F);
  EXPECT_EQ(Name(), verb + path);
  // A Cancel before Start also ends the later run.
  EXPECT_EQ(task->Cancel(), S_OK);
  Run();
  EXPECT_LE(blocks, 1);
  EXPECT_LT(Progress(), 1.0F);
}

TEST_P(FilterTaskTest, RunsOnceWithProgressThatGrowsToOneAndReleasesItsClient) {
  std::vector<float> seen;
  on_block = [&] {
    seen.push_back(Progress());
    EXPECT_TRUE(IsRunning());
    // While the task runs, Start and Initialize fail.
    EXPECT_EQ(task->Start(), E_FAIL);
    EXPECT_EQ(Initialize(), E_FAIL);
  };
  ASSERT_EQ(Initialize(), S_OK);
  Run();
  EXPECT_TRUE(std::ranges::is_sorted(seen));
  EXPECT_EQ(seen.front(), 0.0F);
  EXPECT_GT(seen.back(), 0.5F);
  EXPECT_EQ(Progress(), 1.0F);
  EXPECT_TRUE(ClientIsReleased());
  EXPECT_EQ(task->Start(), E_FAIL);
  EXPECT_FALSE(IsRunning());
  EXPECT_TRUE(DeleteFileW(path.c_str())) << "still open";
}

TEST_P(FilterTaskTest, EndsAfterTheBlockInWhichItsClientCancels) {
  on_block = [&] {
    if (blocks == 2) task->Cancel();
  };
  ASSERT_EQ(Initialize(), S_OK);
  Run();
  EXPECT_EQ(blocks, 2);
  EXPECT_GT(Progress(), 0.0F);
  EXPECT_LT(Progress(), 1.0F);
  EXPECT_TRUE(ClientIsReleased());
}

TEST_P(FilterTaskTest, HasEndedWhenCancelOrTheLastReleaseReturns) {
  for (const bool by_release : {false, true}) {
    const KernelHandle go(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    blocks = 0;
    on_block = [&] { WaitForSingleObject(go.get(), INFINITE); };
    task = Create<ICoreTask>(GetParam().clsid);
    ASSERT_EQ(Initialize(), S_OK);
    ASSERT_EQ(task->Start(), S_OK);
    while (blocks < 1) Sleep(1);
    const std::jthread canceller([&] {
      by_release ? void(task.Reset()) : void(task->Cancel());
      EXPECT_TRUE(ClientIsReleased()) << by_release;
    });
    SetEvent(go.get());
  }
}

TEST_P(FilterTaskTest, TheClientMayReleaseTheTaskInsideACallback) {
  const KernelHandle released(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ICoreTask* const last = task.Get();
  on_block = [&] {
    WaitForSingleObject(released.get(), INFINITE);
    if (blocks == 1) last->Release();
  };
  ASSERT_EQ(Initialize(), S_OK);
  ASSERT_EQ(task->Start(), S_OK);
  last->AddRef();
  task.Reset();
  SetEvent(released.get());
  while (!ClientIsReleased()) Sleep(1);
  EXPECT_EQ(blocks, 1);
}

// A file name with "%s" must not act as a format string.
INSTANTIATE_TEST_SUITE_P(
    All, FilterTaskTest,
    ::testing::Values(FilterCase{"Ogg", CLSID_COggImport, L"in.ogg", false},
                      FilterCase{"DShowImport", CLSID_CDShowImport, L"in.wav", false},
                      FilterCase{"Wav", CLSID_CWavExportFilter, L"100%s.wav", true},
                      FilterCase{"Mp3", CLSID_CDShowExport, L"out.mp3", true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace marlinda::testing
