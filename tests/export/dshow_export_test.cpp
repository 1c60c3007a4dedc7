// The compressed export with an encoder of the tests, and without any.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/export/code_reader.h"
#include "tests/export/dialog_user.h"
#include "tests/export/fake_encoder.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using namespace riff;

constexpr HRESULT kNoEncoder = VFW_E_CANNOT_CONNECT;

class DShowExport : public ::testing::Test {
 protected:
  bool IsThere() const { return GetFileAttributesW(mp3.c_str()) != INVALID_FILE_ATTRIBUTES; }
  float Progress() const {
    float progress = -1;
    EXPECT_EQ(task->GetProgress(&progress), S_OK);
    return progress;
  }
  // On a new filter.
  void Initialize(CodeReader::Setup setup) {
    filter = Create<IExportFilter>(CLSID_CDShowExport);
    task = As<ICoreTask>(filter);
    EXPECT_EQ(filter->Initialize(Bstr(mp3), CodeReader::Create(std::move(setup)).Get()), S_OK);
  }
  void Run() {
    ASSERT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get()));
  }

  EncoderSettings settings;
  TemporaryFolder folder;
  std::wstring mp3 = folder.File(L"out.mp3");
  ComPtr<IExportFilter> filter = Create<IExportFilter>(CLSID_CDShowExport);
  ComPtr<ICoreTask> task;
};

TEST_F(DShowExport, RefusesWhatItCannotWriteAndLeavesFilesAsTheyWere) {
  const auto reader = CodeReader::Create({});
  EXPECT_EQ(filter->Initialize(Bstr(folder.File(L"a.mp3\\b.wav")), reader.Get()), E_INVALIDARG);
  EXPECT_EQ(filter->Initialize(Bstr(folder.File(L"none\\out.mp3")), reader.Get()),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  Initialize({.channels = 2, .frames = 100});
  EXPECT_FALSE(IsThere());
  EXPECT_EQ(task->Start(), kNoEncoder);
  EXPECT_EQ(Progress(), 0.0F);
  EXPECT_FALSE(IsThere());
  WriteFileBytes(mp3, Text("old"));
  Initialize({.channels = 2, .frames = 100});
  EXPECT_EQ(task->Start(), kNoEncoder);
  EXPECT_EQ(Bytes(ReadFileBytes(mp3)), Text("old"));
}

TEST_F(DShowExport, OffersNoBitRateAndSaysCodecErrorToTheOwnerOfTheSettings) {
  const HWND owner = CreateWindowW(L"STATIC", L"host", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 200,
                                   200, nullptr, nullptr, nullptr, nullptr);
  const DialogSteps confirm = [&](const OpenDialog& message) {
    EXPECT_EQ(message.Owner(), owner);
    message.Press(VK_RETURN);
  };
  settings.Write("MP3Bitrate", 192);
  Initialize({.channels = 2});
  {
    const DialogUser user(L"MPEG Layer 3 Encoder Settings", [&](const OpenDialog& dialog) {
      EXPECT_TRUE(dialog.Lines(207).empty());
      confirm(dialog);
    });
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"mp3"), HandleToULong(owner)), S_OK);
  }
  EXPECT_EQ(settings.Read("MP3Bitrate"), 192U);
  {
    const DialogUser user(L"Codec Error", confirm);
    EXPECT_EQ(task->Start(), kNoEncoder);
  }
  DestroyWindow(owner);
}

TEST_F(DShowExport, WritesWhatTheEncoderMakesOfEverySampleBetweenTheTags) {
  const InstalledEncoder installed;
  settings.Write("MP3Bitrate", 200);  // the encoder has 192 and 256
  for (const __int64 frames : {1LL, 65536LL, 200'001LL}) {
    Initialize({.channels = 2, .frames = frames});
    EXPECT_EQ(
        As<IMetaDataWriter>(filter)->SetMetaData(Bstr(L"T"), Bstr(), Bstr(), Bstr(L"2009"), Bstr()),
        S_OK);
    Run();
    EXPECT_EQ(Progress(), 1.0F);
    // 27 bytes of frames and 1024 of padding: 8 * 128 + 27.
    const Bytes front = Text("ID3") + Bytes{3, 0, 0, 0, 0, 8, 27} + Text("TIT2") +
                        Bytes{0, 0, 0, 2, 0, 0, 0, 'T'} + Text("TYER") +
                        Bytes{0, 0, 0, 5, 0, 0, 0} + Text("2009") + Bytes(1024);
    const Bytes back = Text("TAGT") + Bytes(29 + 60) + Text("2009") + Bytes(30) + Bytes{255};
    EXPECT_TRUE(Bytes(ReadFileBytes(mp3)) ==
                front + U32(192 * 125) + CodesAsPcm(0, static_cast<std::uint64_t>(frames) * 2, 16) +
                    Text("END") + back)
        << frames;
  }
}

TEST_F(DShowExport, LeavesACompleteFileWhenCancelledAndNoneWhenTheEncoderFails) {
  const InstalledEncoder installed;
  Initialize({.channels = 2, .frames = 1'000'000, .before_read = [&](__int64 at, auto) {
                return at > 0 ? task->Cancel() : S_OK;
              }});
  Run();
  EXPECT_TRUE(Bytes(ReadFileBytes(mp3)) ==
              U32(128 * 125) + CodesAsPcm(0, 2 * 2 * 65536, 16) + Text("END"));
  EncoderPlan::Current().fails_while_encoding = true;
  Initialize({.channels = 2, .frames = 100});
  Run();
  EXPECT_LT(Progress(), 1.0F);
  EXPECT_FALSE(IsThere());
}

TEST_F(DShowExport, ReportsATargetThatCannotBeMadeAndFormatsThatAllEncodersRefuse) {
  const InstalledEncoder installed;
  Initialize({.channels = 2, .frames = 9});
  // The name is taken between Initialize and Start.
  ASSERT_TRUE(CreateDirectoryW(mp3.c_str(), nullptr));
  EXPECT_EQ(task->Start(), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
  ASSERT_TRUE(RemoveDirectoryW(mp3.c_str()));
  Run();
  EXPECT_EQ(Progress(), 1.0F);
  DeleteFileW(mp3.c_str());
  for (const auto& [channels, hr] : {std::pair<SHORT, HRESULT>{6, kNoEncoder}, {0, E_INVALIDARG}}) {
    Initialize({.channels = channels});
    EXPECT_EQ(task->Start(), hr);
    EXPECT_FALSE(IsThere());
  }
}

}  // namespace
}  // namespace marlinda::testing
