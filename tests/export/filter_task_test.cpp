// What all four filters share: how they describe themselves, and the contract of their task.
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
  const wchar_t* file;  // one of the tree has none
  bool exports;

  friend void PrintTo(const FilterCase& filter, std::ostream* out) { *out << filter.name; }
};

// A filter, its file, and the writer or reader at its other side.
class FilterTaskTest : public ::testing::TestWithParam<FilterCase> {
 protected:
  FilterTaskTest() {
    if (IsExport()) {
      client = CodeReader::Create({.channels = 2,
                                   .frames = 5 * 65536,
                                   .before_read = [this](__int64, auto) { return OnBlock(); }});
      return;
    }
    const auto writer = MakeObject<RecordingWriter>();
    writer->on_write = [this](SAFEARRAY*) { OnBlock(); };
    client = writer;
    if (GetParam().clsid == CLSID_COggImport) {
      path = DataFile("stereo.ogg").wstring();
    } else {
      WriteFileBytes(path,
                     riff::Wav(riff::PlainFormat(1, 1, 8000, 2, 16), riff::Bytes(200000), {}));
    }
  }

  bool IsExport() const { return GetParam().exports; }
  HRESULT Initialize(bool with_client = true) {
    IUnknown* const other = with_client ? client.Get() : nullptr;
    return IsExport()
               ? As<IExportFilter>(task)->Initialize(Bstr(path), As<IAudioReader>(other).Get())
               : As<IImportFilter>(task)->Initialize(Bstr(path), As<IAudioWriter>(other).Get());
  }
  void Run() {
    ASSERT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get()));
  }
  HRESULT OnBlock() {
    ++blocks;
    if (on_block) on_block();
    return S_OK;
  }
  bool IsRunning() {
    VARIANT_BOOL running = 42;
    EXPECT_EQ(task->QueryIsTaskRunning(&running), S_OK);
    EXPECT_TRUE(running == VARIANT_TRUE || running == VARIANT_FALSE);
    return running == VARIANT_TRUE;
  }
  // -1 where there is none.
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

TEST_P(FilterTaskTest, DoesNothingWithoutAFileAndAClient) {
  for (const bool initialized : {false, true}) {
    EXPECT_TRUE(!initialized || Initialize(false) == (IsExport() ? E_POINTER : S_OK));
    EXPECT_EQ(task->Start(), E_FAIL);
    EXPECT_FALSE(IsRunning());
    EXPECT_EQ(task->Cancel(), S_OK);
    if (initialized) break;
    EXPECT_EQ(Progress(), -1);
    EXPECT_EQ(Name(), IsExport() ? L"Saving " : L"Loading ");
  }
  // A Cancel that comes before the Start stays in force.
  EXPECT_EQ(Initialize(), S_OK);
  EXPECT_EQ(Progress(), 0.0F);
  EXPECT_EQ(Name(), (IsExport() ? L"Saving " : L"Loading ") + path);
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
    // Refuses a second start and another file.
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
  if (path.starts_with(folder.path())) {
    EXPECT_TRUE(DeleteFileW(path.c_str())) << "still open";
  }
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
    std::atomic<bool> ended = false;
    blocks = 0;
    on_block = [&] { WaitForSingleObject(go.get(), INFINITE); };
    task = Create<ICoreTask>(GetParam().clsid);
    ASSERT_EQ(Initialize(), S_OK);
    ASSERT_EQ(task->Start(), S_OK);
    while (blocks < 1) Sleep(1);
    std::thread canceller([&] {
      by_release ? void(task.Reset()) : void(task->Cancel());
      ended = ClientIsReleased();
    });
    SetEvent(go.get());
    canceller.join();
    EXPECT_TRUE(ended) << by_release;
  }
}

TEST_P(FilterTaskTest, SurvivesItsLastReleaseByItsOwnClient) {
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

// Texts of the host are no formats.
INSTANTIATE_TEST_SUITE_P(
    All, FilterTaskTest,
    ::testing::Values(FilterCase{"Ogg", CLSID_COggImport, L"", false},
                      FilterCase{"DShowImport", CLSID_CDShowImport, L"in.wav", false},
                      FilterCase{"Wav", CLSID_CWavExportFilter, L"100%s.wav", true},
                      FilterCase{"Mp3", CLSID_CDShowExport, L"out.mp3", true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ExportFilters, DescribeThemselves) {
  const struct {
    const CLSID& clsid;
    SHORT merit;
    bool is_lossy;
    const wchar_t* strings;
    const wchar_t* patterns;
    std::vector<std::wstring> supported;
  } filters[] = {
      {CLSID_CWavExportFilter,
       200,
       false,
       L"Wave Audio Files (*.wav)|*.wav|",
       L"*.wav",
       {L"wav", L"wAv"}},
      {CLSID_CDShowExport,
       100,
       true,
       L"Windows Media Audio Files (*.wma)|*.wma|MPEG Layer 3 Files (*.mp3)|*.mp3|",
       L"*.wma;*.mp3",
       {L"wma", L"MP3"}},
  };
  for (const auto& each : filters) {
    const auto filter = Create<IExportFilter>(each.clsid);
    VARIANT_BOOL answer = 42;
    for (const std::wstring extension : {L"wav", L"wAv", L".wav", L"wma", L"MP3", L""}) {
      const bool supports = std::ranges::count(each.supported, extension) > 0;
      EXPECT_EQ(filter->QuerySupportsExtension(Bstr(extension), &answer), S_OK);
      EXPECT_EQ(answer, supports ? VARIANT_TRUE : VARIANT_FALSE);
      EXPECT_EQ(filter->QueryHasSettingsDlg(Bstr(extension), &answer), S_OK);
      EXPECT_EQ(answer, supports || !each.is_lossy ? VARIANT_TRUE : VARIANT_FALSE);
    }
    EXPECT_EQ(filter->QueryIsLossy(&answer), S_OK);
    EXPECT_EQ(answer, each.is_lossy ? VARIANT_TRUE : VARIANT_FALSE);
    SHORT merit = 0;
    EXPECT_EQ(filter->GetMerit(&merit), S_OK);
    EXPECT_EQ(merit, each.merit);
    Bstr strings, patterns;
    EXPECT_EQ(filter->GetFilterStrings(strings.Receive(), patterns.Receive()), S_OK);
    EXPECT_TRUE(strings.str() == each.strings && patterns.str() == each.patterns);
  }
}

}  // namespace
}  // namespace marlinda::testing
