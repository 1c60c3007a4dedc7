// Tests the settings dialogs as users see them: real windows, which another thread operates while
// the test's thread shows them.

#include <gtest/gtest.h>
// Must follow windows.h.
#include <dshow.h>

#include <functional>
#include <optional>
#include <thread>

#include "tests/export/code_reader.h"
#include "tests/export/mp3_user.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

// Operates an open dialog and closes it.
using DialogSteps = std::function<void(HWND dialog)>;

DialogSteps Click(int item, DialogSteps leave = {}) {
  return [=](HWND dialog) {
    SendMessageW(GetDlgItem(dialog, item), BM_CLICK, 0, 0);
    if (leave) leave(dialog);
  };
}
const DialogSteps kOk = Click(IDOK);

// Returns the checked radio button, or 0 if none is checked.
int Checked(HWND dialog) {
  int item = 201;
  while (item < 208 && IsDlgButtonChecked(dialog, item) != BST_CHECKED) ++item;
  return item < 208 ? item : 0;
}

// Runs the steps once a dialog with that title opens. If it never opens, the test hangs.
std::jthread UseDialog(const std::wstring& title, const DialogSteps& steps) {
  return std::jthread([=] {
    HWND window = nullptr;
    for (DWORD process = 0; process != GetCurrentProcessId() || !IsWindowVisible(window);) {
      Sleep(10);
      window = FindWindowW(L"#32770", title.c_str());
      GetWindowThreadProcessId(window, &process);
    }
    steps(window);
    while (IsWindow(window)) Sleep(10);
  });
}

class SettingsDialogs : public ::testing::Test {
 protected:
  void Show(const std::wstring& kind, const DialogSteps& steps, HWND owner = nullptr) {
    const std::wstring codec = kind == L"wav" ? L"Wave" : kind == L"wma" ? L"WMA" : L"MPEG Layer 3";
    const auto user = UseDialog(codec + L" Encoder Settings", steps);
    const auto& filter = kind == L"wav" ? wav : compressed;
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(kind), HandleToULong(owner)), S_OK);
  }
  // Returns format tag and bits per sample of the files that the WAV filter writes.
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
  std::optional<RegisteredEncoder> encoder = std::make_optional<RegisteredEncoder>();
  ComPtr<IExportFilter> wav = Create<IExportFilter>(CLSID_CWavExportFilter);
  ComPtr<IExportFilter> compressed = Create<IExportFilter>(CLSID_CDShowExport);
};

TEST_F(SettingsDialogs, ApplyTheWidthChosenBeforeOk) {
  const struct {
    SHORT bits;
    int checked;
    DialogSteps steps;
    std::pair<int, int> written;
  } cases[] = {
      {8, 203, Click(206, kOk), {1, 32}},
      {24, 205, Click(207, Click(IDCANCEL)), {1, 24}},
      // The dialog has no button for 20 bits. Float files have 32 bits at every setting.
      {20, 0, kOk, {1, 20}},
      {16, 204, Click(207, kOk), {3, 32}},
      {16, 207, kOk, {3, 32}},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(wav->SetBitsPerSample(each.bits), S_OK);
    Show(L"wav", [&](HWND dialog) {
      EXPECT_EQ(Checked(dialog), each.checked);
      each.steps(dialog);
    });
    EXPECT_EQ(Written(), each.written) << &each - cases;
  }
}

TEST_F(SettingsDialogs, StoreTheBitRateOfTheUser) {
  // Without a stored bit rate, the dialog shows 128.
  Show(L"wma", [](HWND dialog) {
    EXPECT_EQ(Checked(dialog), 203);
    Click(201, Click(IDCANCEL))(dialog);
  });
  EXPECT_EQ(settings.Read("WMABitrate"), 0U);
  Show(L"wma", Click(202, kOk));
  EXPECT_EQ(settings.Read("WMABitrate"), 96U);
  // The dialog limits the stored rate to the encoder's maximum of 320.
  settings.Write("MP3Bitrate", 400);
  Show(L"Mp3", [](HWND dialog) {
    const HWND list = GetDlgItem(dialog, 207);
    EXPECT_EQ(SendMessageW(list, CB_GETCURSEL, 0, 0), 6);
    SendMessageW(list, CB_SETCURSEL, 2, 0);
    PostMessageW(dialog, WM_CLOSE, 0, 0);
  });
  EXPECT_EQ(settings.Read("MP3Bitrate"), 400U);
  Show(L"mp3", kOk);
  EXPECT_EQ(settings.Read("MP3Bitrate"), 320U);
}

TEST_F(SettingsDialogs, DisableTheirOwnerAndOutliveTheFilter) {
  const HWND owner = CreateWindowW(L"STATIC", L"host", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 200,
                                   200, nullptr, nullptr, nullptr, nullptr);
  const DialogSteps modal = [&](HWND dialog) {
    EXPECT_EQ(GetWindow(dialog, GW_OWNER), owner);
    EXPECT_FALSE(IsWindowEnabled(owner));
    kOk(dialog);
  };
  // Without an encoder, the dialog offers no bit rates.
  encoder.reset();
  settings.Write("MP3Bitrate", 192);
  Show(L"mp3", modal, owner);
  EXPECT_EQ(settings.Read("MP3Bitrate"), 192U);
  const TemporaryFolder folder;
  const auto reader = CodeReader::Create({.channels = 2});
  EXPECT_EQ(compressed->Initialize(Bstr(folder.File(L"out.mp3")), reader.Get()), S_OK);
  {
    const auto user = UseDialog(L"Codec Error", modal);
    EXPECT_EQ(As<ICoreTask>(compressed)->Start(), VFW_E_CANNOT_CONNECT);
  }
  EXPECT_TRUE(IsWindowEnabled(owner));
  DestroyWindow(owner);
  Show(L"wav", [&](HWND dialog) {
    wav.Reset();
    kOk(dialog);
  });
}

TEST_F(SettingsDialogs, LeakNoMemory) {
  constexpr unsigned kTimes = 100;
  // One thread confirms all dialogs, so that starting threads does not change the heap count.
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
  // Does not count handles, because under Wine the list of encoders keeps some each time.
  EXPECT_LT(CountHeapBlocks(), blocks + kTimes / 2);
}

}  // namespace
}  // namespace marlinda::testing
