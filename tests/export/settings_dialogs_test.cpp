// The settings dialogs as a person meets them: real windows, worked by mouse and keyboard.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/export/code_reader.h"
#include "tests/export/dialog_user.h"
#include "tests/export/fake_encoder.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;
using Checked = std::vector<int>;

const DialogSteps kOk = [](const OpenDialog& dialog) { dialog.Click(IDOK); };
const DialogSteps kCancel = [](const OpenDialog& dialog) { dialog.Click(IDCANCEL); };
const DialogSteps kEnter = [](const OpenDialog& dialog) { dialog.Press(VK_RETURN); };
const DialogSteps kEscape = [](const OpenDialog& dialog) { dialog.Press(VK_ESCAPE); };
const DialogSteps kClose = [](const OpenDialog& dialog) {
  PostMessageW(dialog.window(), WM_CLOSE, 0, 0);
};

class SettingsDialogs : public ::testing::Test {
 protected:
  void Show(const wchar_t* extension, const DialogSteps& steps, HWND owner = nullptr) {
    const std::wstring kind = extension;
    const DialogUser user(kind == L"wav"   ? L"Wave Encoder Settings"
                          : kind == L"wma" ? L"WMA Encoder Settings"
                                           : L"MPEG Layer 3 Encoder Settings",
                          steps);
    const auto& filter = kind == L"wav" ? wav : compressed;
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(extension), HandleToULong(owner)), S_OK);
  }
  // Clicks the item, unless it is 0.
  static DialogSteps Click(const Checked& expected, int item, const DialogSteps& leave) {
    return [=](const OpenDialog& dialog) {
      EXPECT_EQ(dialog.Checked(), expected);
      if (item != 0) dialog.Click(item);
      leave(dialog);
    };
  }
  // Format tag and bits per sample of the files that the WAV filter now writes.
  std::pair<int, int> Written() {
    const TemporaryFolder folder;
    const std::wstring path = folder.File(L"out.wav");
    const auto reader = CodeReader::Create({.channels = 2, .frames = 1});
    EXPECT_EQ(wav->Initialize(Bstr(path), reader.Get()), S_OK);
    EXPECT_EQ(As<ICoreTask>(wav)->Start(), S_OK);
    EXPECT_TRUE(WaitForTask(As<ICoreTask>(wav).Get()));
    const auto bytes = ReadFileBytes(path);
    return {bytes.at(20), bytes.at(34)};
  }

  EncoderSettings settings;
  ComPtr<IExportFilter> wav = Create<IExportFilter>(CLSID_CWavExportFilter);
  ComPtr<IExportFilter> compressed = Create<IExportFilter>(CLSID_CDShowExport);
};

TEST_F(SettingsDialogs, TakeTheWidthThatWasChosenBeforeOk) {
  const struct {
    int earlier;  // clicked in an earlier dialog
    SHORT bits;
    Checked checked;
    int click;
    DialogSteps leave;
    std::pair<int, int> written;
  } cases[] = {
      {0, 16, {204}, 203, kOk, {1, 8}},
      {0, 16, {204}, 206, kOk, {1, 32}},
      {0, 16, {204}, 207, kOk, {3, 32}},
      {206, 8, {203}, 205, kEnter, {1, 24}},
      {0, 24, {205}, 207, kCancel, {1, 24}},
      {0, 24, {205}, 207, kClose, {1, 24}},
      // No button stands for 20 bits, and floats have 32 whatever was set.
      {0, 20, {}, 0, kEnter, {1, 20}},
      {207, 16, {207}, 0, kOk, {3, 32}},
  };
  for (const auto& each : cases) {
    wav = Create<IExportFilter>(CLSID_CWavExportFilter);
    if (each.earlier != 0) Show(L"wav", Click({204}, each.earlier, kOk));
    EXPECT_EQ(wav->SetBitsPerSample(each.bits), S_OK);
    Show(L"wav", Click(each.checked, each.click, each.leave));
    EXPECT_EQ(Written(), each.written) << each.bits << ' ' << each.click;
  }
  // By keyboard alone.
  Show(L"wav", [](const OpenDialog& dialog) {
    dialog.WaitForFocus(207);
    dialog.PressThrough(VK_TAB, {IDOK, IDCANCEL, 207});
    dialog.PressThrough(VK_DOWN, {203, 204});
    dialog.PressThrough(VK_UP, {203});
    WaitUntil([&] { return dialog.Checked() == Checked{203}; });
    kEnter(dialog);
  });
  EXPECT_EQ(Written(), std::pair(1, 8));
}

TEST_F(SettingsDialogs, StoreTheWmaBitRateOfTheUser) {
  Show(L"wma", Click({203}, 201, kCancel));  // 128, without a stored one
  EXPECT_EQ(settings.Read("WMABitrate"), 0U);
  Show(L"wma", Click({203}, 202, kOk));
  EXPECT_EQ(settings.Read("WMABitrate"), 96U);
  settings.Write("WMABitrate", 80);
  Show(L"wma", Click({}, 0, kOk));
  EXPECT_EQ(settings.Read("WMABitrate"), 80U);
}

TEST_F(SettingsDialogs, OfferTheBitRatesOfTheMp3EncoderAndStoreTheChosenOne) {
  const InstalledEncoder installed;
  EncoderPlan::Current().kbits_per_sec = {32, 128, 64};
  settings.Write("MP3Bitrate", 320);
  Show(L"Mp3", [](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Lines(207),
                ElementsAre(L"56 kbit / s", L"64 kbit / s", L"96 kbit / s", L"128 kbit / s"));
    EXPECT_EQ(dialog.Send(207, CB_GETCURSEL), 3);
    dialog.WaitForFocus(207);
    dialog.Press(VK_UP);
    WaitUntil([&] { return dialog.Send(207, CB_GETCURSEL) == 2; });
    kEscape(dialog);
  });
  EXPECT_EQ(settings.Read("MP3Bitrate"), 320U);
  Show(L"mp3", kEnter);
  EXPECT_EQ(settings.Read("MP3Bitrate"), 128U);

  // Nothing is known of this one, so nothing can be chosen.
  EncoderPlan::Current().tells_capabilities = false;
  settings.Write("MP3Bitrate", 192);
  Show(L"mp3", [](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Lines(207), ElementsAre());
    kOk(dialog);
  });
  EXPECT_EQ(settings.Read("MP3Bitrate"), 192U);
}

TEST_F(SettingsDialogs, AreModalToTheirOwnerAndOutliveTheLastReleaseOfTheFilter) {
  const HWND owner = CreateWindowW(L"STATIC", L"host", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 200,
                                   200, nullptr, nullptr, nullptr, nullptr);
  Show(
      L"wav",
      [&](const OpenDialog& dialog) {
        EXPECT_EQ(dialog.Owner(), owner);
        EXPECT_FALSE(IsWindowEnabled(owner));
        dialog.Click(203);
        kOk(dialog);
      },
      owner);
  EXPECT_TRUE(IsWindowEnabled(owner));
  DestroyWindow(owner);
  // That window is gone: no dialog, and nothing changes.
  EXPECT_EQ(wav->ShowSettingsDlg(Bstr(L"wav"), HandleToULong(owner)), S_OK);
  EXPECT_EQ(Written(), std::pair(1, 8));
  Show(L"wav", [&](const OpenDialog& dialog) {
    wav.Reset();
    kOk(dialog);
  });
}

TEST_F(SettingsDialogs, LeaveNothingBehind) {
  constexpr unsigned kTimes = 100;
  const InstalledEncoder installed;
  // One thread for all dialogs: the threads of this test are not what is counted.
  const std::jthread user([main = GetCurrentThreadId()](const std::stop_token& stop) {
    for (; !stop.stop_requested(); Sleep(1)) {
      const HWND dialog = FindWindowW(L"#32770", nullptr);
      if (GetWindowThreadProcessId(dialog, nullptr) == main) {
        PostMessageW(dialog, WM_COMMAND, IDOK, 0);
      }
    }
  });
  const auto show = [&](unsigned times) {
    for (unsigned i = 0; i < times; ++i) {
      EXPECT_EQ(wav->ShowSettingsDlg(Bstr(L"wav"), 0), S_OK);
      EXPECT_EQ(compressed->ShowSettingsDlg(Bstr(L"wma"), 0), S_OK);
      EXPECT_EQ(compressed->ShowSettingsDlg(Bstr(L"mp3"), 0), S_OK);
    }
  };
  show(10);
  const std::size_t blocks = CountHeapBlocks();
  show(kTimes);
  // Handles are not counted: the system's list of encoders keeps some each time under Wine.
  EXPECT_LT(CountHeapBlocks(), blocks + kTimes / 2);
}

}  // namespace
}  // namespace marlinda::testing
