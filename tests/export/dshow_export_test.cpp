// The compressed export with an encoder of the tests, and without any.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/registry.h"
#include "export/mpeg_settings.h"
#include "tests/export/code_reader.h"
#include "tests/export/dialog_user.h"
#include "tests/export/fake_encoder.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr wchar_t kMp3Title[] = L"MPEG Layer 3 Encoder Settings";
constexpr wchar_t kWmaTitle[] = L"WMA Encoder Settings";
constexpr wchar_t kMessageTitle[] = L"Codec Error";
constexpr HRESULT kNoEncoder = VFW_E_CANNOT_CONNECT;

// The settings of the user, which the tests put back.
class DShowExport : public ::testing::Test {
 protected:
  DShowExport() {
    EXPECT_EQ(
        settings.Open(HKEY_CURRENT_USER, std::string(kSettingsKey) + "\\EncoderSettings", false),
        ERROR_SUCCESS);
    ForgetSettings();
  }
  ~DShowExport() override { ForgetSettings(); }

  static void ForgetSettings() {
    const std::string key = std::string(kSettingsKey) + "\\EncoderSettings";
    RegDeleteKeyValueA(HKEY_CURRENT_USER, key.c_str(), "WMABitrate");
    RegDeleteKeyValueA(HKEY_CURRENT_USER, key.c_str(), "MP3Bitrate");
  }
  bool IsThere(const std::wstring& file) const {
    return GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES;
  }
  bool IsRunning() const {
    VARIANT_BOOL running = VARIANT_TRUE;
    EXPECT_EQ(task->QueryIsTaskRunning(&running), S_OK);
    return running != VARIANT_FALSE;
  }
  float Progress() const {
    float progress = -1;
    EXPECT_EQ(task->GetProgress(&progress), S_OK);
    return progress;
  }
  CRegistry settings;
  TemporaryFolder folder;
  std::wstring mp3 = folder.File(L"out.mp3");
  ComPtr<IExportFilter> filter = Create<IExportFilter>(CLSID_CDShowExport);
  ComPtr<ICoreTask> task = As<ICoreTask>(filter);
};

// A window of the test's own, as the host's.
struct HostWindow {
  HWND handle = CreateWindowW(L"STATIC", L"host", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 200, 200,
                              nullptr, nullptr, nullptr, nullptr);
  ~HostWindow() { DestroyWindow(handle); }
  ULONG Number() const { return HandleToULong(handle); }
};

TEST_F(DShowExport, DescribesItselfToTheHost) {
  VARIANT_BOOL answer = 42;
  for (const wchar_t* extension : {L"wma", L"MP3", L"mp3"}) {
    EXPECT_EQ(filter->QuerySupportsExtension(Bstr(extension), &answer), S_OK);
    EXPECT_EQ(answer, VARIANT_TRUE);
    EXPECT_EQ(filter->QueryHasSettingsDlg(Bstr(extension), &answer), S_OK);
    EXPECT_EQ(answer, VARIANT_TRUE);
  }
  for (const wchar_t* extension : {L"wav", L".mp3", L"mp", L""}) {
    EXPECT_EQ(filter->QuerySupportsExtension(Bstr(extension), &answer), S_OK);
    EXPECT_EQ(answer, VARIANT_FALSE);
    EXPECT_EQ(filter->QueryHasSettingsDlg(Bstr(extension), &answer), S_OK);
    EXPECT_EQ(answer, VARIANT_FALSE);
  }
  EXPECT_EQ(filter->QueryIsLossy(&answer), S_OK);
  EXPECT_EQ(answer, VARIANT_TRUE);
  SHORT merit = 0;
  EXPECT_EQ(filter->GetMerit(&merit), S_OK);
  EXPECT_EQ(merit, 100);
  Bstr strings, extensions;
  EXPECT_EQ(filter->GetFilterStrings(strings.Receive(), extensions.Receive()), S_OK);
  EXPECT_EQ(strings.str(),
            L"Windows Media Audio Files (*.wma)|*.wma|MPEG Layer 3 Files (*.mp3)|*.mp3|");
  EXPECT_EQ(extensions.str(), L"*.wma;*.mp3");
  EXPECT_EQ(filter->SetBitsPerSample(24), S_OK);
}

TEST_F(DShowExport, RefusesFilesItCannotWriteAndLeavesOldOnesAsTheyAre) {
  const auto reader = CodeReader::Create({});
  EXPECT_EQ(filter->Initialize(Bstr(folder.File(L"a.mp3\\b.wav")), reader.Get()), E_INVALIDARG);
  EXPECT_EQ(filter->Initialize(Bstr(folder.File(L"none\\out.mp3")), reader.Get()),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  // Trying leaves no file, and an old one as it is.
  EXPECT_EQ(filter->Initialize(Bstr(mp3), reader.Get()), S_OK);
  EXPECT_FALSE(IsThere(mp3));
  WriteFileBytes(mp3, Text("old"));
  EXPECT_EQ(filter->Initialize(Bstr(mp3), reader.Get()), S_OK);
  EXPECT_EQ(Bytes(ReadFileBytes(mp3)), Text("old"));
}

TEST_F(DShowExport, FailsWithoutAnEncoderAndLeavesNothingBehind) {
  const auto reader = CodeReader::Create({.channels = 2, .frames = 100});
  EXPECT_EQ(filter->Initialize(Bstr(mp3), reader.Get()), S_OK);
  EXPECT_EQ(task->Start(), kNoEncoder);
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(Progress(), 0.0F);
  EXPECT_FALSE(IsThere(mp3));
  WriteFileBytes(mp3, Text("old"));
  EXPECT_EQ(task->Start(), kNoEncoder);
  EXPECT_EQ(Bytes(ReadFileBytes(mp3)), Text("old"));
  EXPECT_EQ(task->Cancel(), S_OK);
}

TEST_F(DShowExport, OffersNoBitRateAndSaysCodecErrorToTheOwnerOfTheSettings) {
  const HostWindow host;
  const auto confirm = [&](const OpenDialog& message) {
    EXPECT_EQ(message.Owner(), host.handle);
    message.Press(VK_RETURN);
  };
  settings.WriteDword("MP3Bitrate", 192);
  {
    const DialogUser user(kMp3Title, [&](const OpenDialog& dialog) {
      EXPECT_THAT(dialog.Lines(207), ElementsAre());
      confirm(dialog);
    });
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"mp3"), host.Number()), S_OK);
  }
  EXPECT_EQ(settings.ReadDword("MP3Bitrate", 0), 192U);
  EXPECT_EQ(filter->Initialize(Bstr(mp3), CodeReader::Create({.channels = 2}).Get()), S_OK);
  const DialogUser user(kMessageTitle, confirm);
  EXPECT_EQ(task->Start(), kNoEncoder);
}

TEST_F(DShowExport, WritesWhatTheEncoderMakesOfEverySampleBetweenTheTags) {
  const InstalledEncoder installed;
  settings.WriteDword("MP3Bitrate", 200);  // the encoder has 192 and 256
  for (const __int64 frames : {1LL, 65536LL, 200'001LL}) {
    filter = Create<IExportFilter>(CLSID_CDShowExport);
    task = As<ICoreTask>(filter);
    EXPECT_EQ(
        filter->Initialize(Bstr(mp3), CodeReader::Create({.channels = 2, .frames = frames}).Get()),
        S_OK);
    EXPECT_EQ(
        As<IMetaDataWriter>(filter)->SetMetaData(Bstr(L"T"), Bstr(), Bstr(), Bstr(L"2009"), Bstr()),
        S_OK);
    ASSERT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get()));
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
  const auto reader = [](auto before_read) {
    CodeReader::Setup setup{.channels = 2, .frames = 1'000'000};
    setup.before_read = before_read;
    return CodeReader::Create(setup);
  };
  const auto cancelling = [&](__int64 at, std::span<float>) {
    if (at > 0) task->Cancel();
    return S_OK;
  };
  EXPECT_EQ(filter->Initialize(Bstr(mp3), reader(cancelling).Get()), S_OK);
  EXPECT_EQ(task->Start(), S_OK);
  ASSERT_TRUE(WaitForTask(task.Get()));
  EXPECT_TRUE(Bytes(ReadFileBytes(mp3)) ==
              U32(128 * 125) + CodesAsPcm(0, 2 * 2 * 65536, 16) + Text("END"));

  EncoderPlan::Current().fails_while_encoding = true;
  filter = Create<IExportFilter>(CLSID_CDShowExport);
  task = As<ICoreTask>(filter);
  EXPECT_EQ(filter->Initialize(Bstr(mp3), CodeReader::Create({.channels = 2, .frames = 100}).Get()),
            S_OK);
  EXPECT_EQ(task->Start(), S_OK);
  ASSERT_TRUE(WaitForTask(task.Get()));
  EXPECT_LT(Progress(), 1.0F);
  EXPECT_FALSE(IsThere(mp3));
}

TEST_F(DShowExport, ReportsATargetThatCannotBeMadeAndMayBeStartedAgain) {
  const InstalledEncoder installed;
  EXPECT_EQ(filter->Initialize(Bstr(mp3), CodeReader::Create({.channels = 2, .frames = 9}).Get()),
            S_OK);
  // The name is taken between Initialize and Start.
  ASSERT_TRUE(CreateDirectoryW(mp3.c_str(), nullptr));
  EXPECT_EQ(task->Start(), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
  EXPECT_FALSE(IsRunning());
  ASSERT_TRUE(RemoveDirectoryW(mp3.c_str()));
  EXPECT_EQ(task->Start(), S_OK) << "the reader stays for another try";
  ASSERT_TRUE(WaitForTask(task.Get()));
  EXPECT_EQ(Progress(), 1.0F);
}

TEST_F(DShowExport, HasNoEncoderForChannelsThatAllRefuse) {
  const InstalledEncoder installed;
  EXPECT_EQ(filter->Initialize(Bstr(mp3), CodeReader::Create({.channels = 6}).Get()), S_OK);
  EXPECT_EQ(task->Start(), kNoEncoder);
  EXPECT_FALSE(IsThere(mp3));
  EXPECT_EQ(filter->Initialize(Bstr(mp3), CodeReader::Create({.channels = 0}).Get()), S_OK);
  EXPECT_EQ(task->Start(), E_INVALIDARG);
}

TEST_F(DShowExport, OffersTheBitRatesOfTheEncoderAndStoresTheChosenOne) {
  const InstalledEncoder installed;
  EncoderPlan::Current().kbits_per_sec = {32, 128, 64};
  settings.WriteDword("MP3Bitrate", 320);
  const auto show = [&](std::function<void(const OpenDialog&)> steps) {
    const DialogUser user(kMp3Title, std::move(steps));
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"Mp3"), 0), S_OK);
  };
  show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Items(), ElementsAre(L"Static: Bit rate:", L"207 ComboBox: 128 kbit / s",
                                            L"1 Button: OK", L"2 Button: Cancel"));
    EXPECT_THAT(dialog.Lines(207),
                ElementsAre(L"56 kbit / s", L"64 kbit / s", L"96 kbit / s", L"128 kbit / s"));
    EXPECT_EQ(dialog.SelectedLine(207), 3);
    EXPECT_EQ(dialog.FontName(), L"MS Sans Serif");
    dialog.WaitForFocus(207);
    dialog.TabThrough({IDOK, IDCANCEL, 207});
    dialog.Press(VK_UP);
    WaitUntil([&] { return dialog.SelectedLine(207) == 2; });
    dialog.Press(VK_ESCAPE);
  });
  EXPECT_EQ(settings.ReadDword("MP3Bitrate", 0), 320U);
  show([](const OpenDialog& dialog) { dialog.Press(VK_RETURN); });
  EXPECT_EQ(settings.ReadDword("MP3Bitrate", 0), 128U);

  // Nothing is known of this one, so nothing can be chosen.
  EncoderPlan::Current().tells_capabilities = false;
  settings.WriteDword("MP3Bitrate", 192);
  show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Lines(207), IsEmpty());
    dialog.Click(IDOK);
  });
  EXPECT_EQ(settings.ReadDword("MP3Bitrate", 0), 192U);
}

TEST_F(DShowExport, StoresTheWmaBitRateAndShowsNothingForOtherFiles) {
  EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"wav"), 0), S_OK);
  const auto show = [&](std::function<void(const OpenDialog&)> steps) {
    const DialogUser user(kWmaTitle, std::move(steps));
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"WMA"), 0), S_OK);
  };
  show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Items(), ElementsAre(L"Button: Encoding bit rate",
                                            L"201 Button: Encode audio with 64 kbit per second",
                                            L"202 Button: Encode audio with 96 kbit per second",
                                            L"203 Button: Encode audio with 128 kbit per second",
                                            L"1 Button: OK", L"2 Button: Cancel"));
    EXPECT_EQ(dialog.FontName(), L"MS Sans Serif");
    EXPECT_THAT(dialog.Checked(), ElementsAre(203));  // 128, without a stored one
    dialog.Click(201);
    dialog.Click(IDCANCEL);
  });
  EXPECT_EQ(settings.ReadDword("WMABitrate", 0), 0U);
  show([](const OpenDialog& dialog) {
    dialog.Click(201);
    dialog.Click(IDOK);
  });
  EXPECT_EQ(settings.ReadDword("WMABitrate", 0), 64U);
  show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Checked(), ElementsAre(201));
    dialog.Click(202);
    dialog.Click(IDOK);
  });
  EXPECT_EQ(settings.ReadDword("WMABitrate", 0), 96U);
  settings.WriteDword("WMABitrate", 80);
  show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Checked(), IsEmpty());
    dialog.Click(IDOK);
  });
  EXPECT_EQ(settings.ReadDword("WMABitrate", 0), 80U);
}

TEST(MpegSettings, TakeTheBestOfTheEncoderUpTo128AsTheirBeginning) {
  EncoderPlan::Current().kbits_per_sec = {56, 96};
  EXPECT_EQ(CMpegSettings(ComPtr<GraphFilter>(new FakeEncoder).Get()).bit_rate_kbit(), 96);
  EncoderPlan::Current().kbits_per_sec = {320};
  const CMpegSettings best(ComPtr<GraphFilter>(new FakeEncoder).Get());
  EXPECT_EQ(best.max_bit_rate_kbit(), 320);
  EXPECT_EQ(best.bit_rate_kbit(), 128);
  EXPECT_EQ(CMpegSettings(nullptr).bit_rate_kbit(), 0);
  EncoderPlan::Current() = {};
}

}  // namespace
}  // namespace marlinda::testing
