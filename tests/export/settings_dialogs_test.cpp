// The settings dialogs as a person meets them: real windows, worked by mouse and keyboard.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/module.h"
#include "export/settings_dialog.h"
#include "tests/export/code_reader.h"
#include "tests/export/dialog_user.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr wchar_t kWavTitle[] = L"Wave Encoder Settings";
constexpr ULONG kNoOwner = 0;

// Dialogs that no interface shows by itself run in the test program, on the module's templates.
class SettingsDialogs : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { TheModule().Attach(ModuleUnderTest::Handle()); }
};

class WavDialog : public SettingsDialogs {
 protected:
  void Show(std::function<void(const OpenDialog&)> steps, ULONG owner = kNoOwner) {
    const DialogUser user(kWavTitle, std::move(steps));
    EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"wav"), owner), S_OK);
  }
  // What the filter now writes: format tag and bits per sample of a file with two channels.
  std::pair<int, int> Written() {
    const TemporaryFolder folder;
    const std::wstring path = folder.File(L"out.wav");
    EXPECT_EQ(
        filter->Initialize(Bstr(path), CodeReader::Create({.channels = 2, .frames = 1}).Get()),
        S_OK);
    const auto task = As<ICoreTask>(filter);
    EXPECT_EQ(task->Start(), S_OK);
    EXPECT_TRUE(WaitForTask(task.Get()));
    const auto bytes = ReadFileBytes(path);
    return {bytes.at(20), bytes.at(34)};
  }

  ComPtr<IExportFilter> filter = Create<IExportFilter>(CLSID_CWavExportFilter);
};

TEST_F(WavDialog, TakesTheWidthThatWasClickedBeforeOk) {
  const std::tuple<int, int, int> choices[] = {
      {203, 1, 8}, {204, 1, 16}, {205, 1, 24}, {206, 1, 32}, {207, 3, 32}};
  for (const auto& [item, tag, bits] : choices) {
    filter = Create<IExportFilter>(CLSID_CWavExportFilter);
    Show([item = item](const OpenDialog& dialog) {
      EXPECT_THAT(dialog.Checked(), ElementsAre(204));
      dialog.Click(item);
      EXPECT_THAT(dialog.Checked(), ElementsAre(item));
      dialog.Click(IDOK);
    });
    EXPECT_EQ(Written(), std::pair(tag, bits)) << item;
    Show([item = item](const OpenDialog& dialog) {
      EXPECT_THAT(dialog.Checked(), ElementsAre(item));
      dialog.Click(IDCANCEL);
    });
  }
}

TEST_F(WavDialog, ChangesNothingWhenCancelledEscapedOrClosed) {
  const std::function<void(const OpenDialog&)> ways_out[] = {
      [](const OpenDialog& dialog) { dialog.Click(IDCANCEL); },
      [](const OpenDialog& dialog) { dialog.Press(VK_ESCAPE); },
      [](const OpenDialog& dialog) { dialog.Close(); },
  };
  EXPECT_EQ(filter->SetBitsPerSample(24), S_OK);
  for (const auto& leave : ways_out) {
    Show([&](const OpenDialog& dialog) {
      EXPECT_THAT(dialog.Checked(), ElementsAre(205));
      dialog.Click(207);
      leave(dialog);
    });
  }
  EXPECT_EQ(Written(), std::pair(1, 24));
}

TEST_F(WavDialog, ChecksNothingForAWidthWithoutAButtonAndKeepsItOnOk) {
  EXPECT_EQ(filter->SetBitsPerSample(20), S_OK);
  Show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Checked(), IsEmpty());
    dialog.Press(VK_RETURN);
  });
  EXPECT_EQ(Written(), std::pair(1, 20));
}

TEST_F(WavDialog, ChecksFloatWhateverTheWidthAndThenMeans32Bits) {
  Show([](const OpenDialog& dialog) {
    dialog.Click(207);
    dialog.Click(IDOK);
  });
  EXPECT_EQ(filter->SetBitsPerSample(16), S_OK);
  Show([](const OpenDialog& dialog) {
    EXPECT_THAT(dialog.Checked(), ElementsAre(207));
    dialog.Click(IDOK);
  });
  EXPECT_EQ(Written(), std::pair(3, 32));
}

TEST_F(WavDialog, IsWorkedByKeyboardAlone) {
  Show([](const OpenDialog& dialog) {
    dialog.WaitForFocus(204);
    dialog.TabThrough({IDOK, IDCANCEL, 204});
    for (const int item : {205, 206, 207, 203}) {
      dialog.Press(VK_DOWN);
      dialog.WaitForFocus(item);
    }
    dialog.Press(VK_UP);
    dialog.WaitForFocus(207);
    WaitUntil([&] { return dialog.Checked() == std::vector{207}; });
    dialog.Press(VK_RETURN);
  });
  EXPECT_EQ(Written(), std::pair(3, 32));
}

TEST_F(WavDialog, SaysWhatItOffers) {
  Show([](const OpenDialog& dialog) {
    EXPECT_THAT(
        dialog.Items(),
        ElementsAre(L"Button: Number format", L"203 Button: 8 bit linear PCM",
                    L"204 Button: 16 bit linear PCM", L"205 Button: 24 bit linear PCM",
                    L"206 Button: 32 bit linear PCM", L"207 Button: 32 bit IEEE floating point",
                    L"1 Button: OK", L"2 Button: Cancel"));
    EXPECT_EQ(dialog.FontName(), L"MS Sans Serif");
    EXPECT_EQ(SendMessageW(dialog.window(), DM_GETDEFID, 0, 0), MAKELONG(IDOK, DC_HASDEFID));
    dialog.Close();
  });
}

TEST_F(WavDialog, IsModalToItsOwner) {
  const HWND owner = CreateWindowW(L"STATIC", L"host", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 200,
                                   200, nullptr, nullptr, nullptr, nullptr);
  Show(
      [&](const OpenDialog& dialog) {
        EXPECT_EQ(dialog.Owner(), owner);
        EXPECT_FALSE(IsWindowEnabled(owner));
        dialog.Click(203);
        dialog.Click(IDOK);
      },
      HandleToULong(owner));
  EXPECT_TRUE(IsWindowEnabled(owner));
  DestroyWindow(owner);
  // That window is gone: no dialog, and nothing changes.
  EXPECT_EQ(filter->ShowSettingsDlg(Bstr(L"wav"), HandleToULong(owner)), S_OK);
  EXPECT_EQ(Written(), std::pair(1, 8));
}

TEST_F(WavDialog, OutlivesTheLastReleaseOfItsFilter) {
  Show([&](const OpenDialog& dialog) {
    filter.Reset();
    dialog.Click(IDOK);
  });
}

TEST_F(SettingsDialogs, ReportWhyTheyCouldNotBeSetUp) {
  class Broken final : public SettingsDialog {
   public:
    Broken() : SettingsDialog(107) {}
    HWND OnOpening() override { return Item(999); }
  };
  Broken broken;
  SetLastError(ERROR_SUCCESS);
  const INT_PTR result = broken.ShowModal(nullptr);
  EXPECT_TRUE(result != IDOK && result != IDCANCEL) << result;
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CONTROL_ID_NOT_FOUND));
}

}  // namespace
}  // namespace marlinda::testing
