// A person at the dialogs of this process: finds a dialog's window, reads it and works its mouse
// and keyboard on a thread of its own, while the thread of the test shows the dialog.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace marlinda::testing {

// A state that never comes is a hang, which CTest ends.
inline void WaitUntil(const std::function<bool()>& happened) {
  while (!happened()) Sleep(10);
}

// An open dialog.
class OpenDialog {
 public:
  explicit OpenDialog(HWND window) : window_(window) {}

  HWND window() const { return window_; }
  HWND Owner() const { return GetWindow(window_, GW_OWNER); }
  LRESULT Send(int item, UINT message, WPARAM wparam = 0, LPARAM lparam = 0) const {
    return SendMessageW(GetDlgItem(window_, item), message, wparam, lparam);
  }

  void Click(int item) const { Send(item, BM_CLICK); }
  // A key goes where the keyboard is.
  void Press(WPARAM key) const {
    PostMessageW(Focus(), WM_KEYDOWN, key, 1);
    PostMessageW(Focus(), WM_KEYUP, key, static_cast<LPARAM>(0xC0000001));
  }
  // Presses the key once for each of `items`, which the keyboard must reach in turn.
  void PressThrough(WPARAM key, std::initializer_list<int> items) const {
    for (const int item : items) {
      Press(key);
      WaitForFocus(item);
    }
  }
  void WaitForFocus(int item) const {
    WaitUntil([&] { return Focus() == GetDlgItem(window_, item); });
  }

  // The radio buttons that are checked.
  std::vector<int> Checked() const {
    std::vector<int> checked;
    for (HWND item = GetWindow(window_, GW_CHILD); item; item = GetWindow(item, GW_HWNDNEXT)) {
      const LRESULT code = SendMessageW(item, WM_GETDLGCODE, 0, 0);
      if ((code & DLGC_RADIOBUTTON) != 0 && SendMessageW(item, BM_GETCHECK, 0, 0) == BST_CHECKED) {
        checked.push_back(GetDlgCtrlID(item));
      }
    }
    return checked;
  }
  std::vector<std::wstring> Lines(int list) const {
    std::vector<std::wstring> lines;
    for (LRESULT line = 0; line < Send(list, CB_GETCOUNT); ++line) {
      wchar_t text[100] = L"";
      Send(list, CB_GETLBTEXT, static_cast<WPARAM>(line), reinterpret_cast<LPARAM>(text));
      lines.emplace_back(text);
    }
    return lines;
  }

 private:
  HWND Focus() const {
    GUITHREADINFO info = {};
    info.cbSize = sizeof info;
    GetGUIThreadInfo(GetWindowThreadProcessId(window_, nullptr), &info);
    return info.hwndFocus;
  }

  HWND window_;
};

using DialogSteps = std::function<void(const OpenDialog&)>;

// Runs `steps` on the dialog with that title, once it is there. The steps end the dialog.
class DialogUser {
 public:
  DialogUser(const std::wstring& title, const DialogSteps& steps)
      : thread_([title, steps] {
          HWND window = nullptr;
          WaitUntil([&] { return (window = Find(title)) != nullptr; });
          steps(OpenDialog(window));
          WaitUntil([&] { return !IsWindow(window); });
        }) {}

 private:
  static HWND Find(const std::wstring& title) {
    const HWND window = FindWindowW(L"#32770", title.c_str());
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    return process == GetCurrentProcessId() && IsWindowVisible(window) ? window : nullptr;
  }

  const std::jthread thread_;
};

}  // namespace marlinda::testing
