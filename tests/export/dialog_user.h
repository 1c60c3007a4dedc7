// DialogUser: finds the window of a dialog, reads it and works its mouse and keyboard, on a thread
// of its own, while the thread of the test shows the dialog.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace marlinda::testing {

// Waits for a state. A state that never comes is a hang, which the test runner ends.
inline void WaitUntil(const std::function<bool()>& happened) {
  while (!happened()) Sleep(10);
}

// An open dialog of this process.
class OpenDialog {
 public:
  explicit OpenDialog(HWND window) : window_(window) {}

  HWND window() const { return window_; }
  HWND Item(int item) const { return GetDlgItem(window_, item); }
  HWND Owner() const { return GetWindow(window_, GW_OWNER); }

  void Click(int item) const { SendMessageW(Item(item), BM_CLICK, 0, 0); }
  void Close() const { PostMessageW(window_, WM_CLOSE, 0, 0); }
  // A key goes where the keyboard is.
  void Press(WPARAM key) const {
    PostMessageW(Focus(), WM_KEYDOWN, key, 1);
    PostMessageW(Focus(), WM_KEYUP, key, static_cast<LPARAM>(0xC0000001));
  }
  void WaitForFocus(int item) const {
    WaitUntil([&] { return Focus() == Item(item); });
  }
  // Presses the tab key once for each of `items`, which the keyboard must reach in turn.
  void TabThrough(std::initializer_list<int> items) const {
    for (const int item : items) {
      Press(VK_TAB);
      WaitForFocus(item);
    }
  }

  // The radio buttons that are checked, or any other items.
  std::vector<int> Checked() const {
    std::vector<int> checked;
    for (HWND item = GetWindow(window_, GW_CHILD); item; item = GetWindow(item, GW_HWNDNEXT)) {
      if (SendMessageW(item, BM_GETCHECK, 0, 0) == BST_CHECKED && ClassOf(item) == L"Button") {
        checked.push_back(GetDlgCtrlID(item));
      }
    }
    return checked;
  }
  // "203 Button: 8 bit linear PCM", from the first item to the last; the item of a label or a group
  // is left out.
  std::vector<std::wstring> Items() const {
    std::vector<std::wstring> items;
    for (HWND item = GetWindow(window_, GW_CHILD); item; item = GetWindow(item, GW_HWNDNEXT)) {
      const int id = static_cast<SHORT>(GetDlgCtrlID(item));
      items.push_back((id > 0 ? std::to_wstring(id) + L' ' : L"") + ClassOf(item) + L": " +
                      TextOf(item));
    }
    return items;
  }
  std::vector<std::wstring> Lines(int list) const {
    std::vector<std::wstring> lines;
    const LRESULT count = SendMessageW(Item(list), CB_GETCOUNT, 0, 0);
    for (LRESULT line = 0; line < count; ++line) {
      wchar_t text[100] = L"";
      SendMessageW(Item(list), CB_GETLBTEXT, static_cast<WPARAM>(line),
                   reinterpret_cast<LPARAM>(text));
      lines.emplace_back(text);
    }
    return lines;
  }
  LRESULT SelectedLine(int list) const { return SendMessageW(Item(list), CB_GETCURSEL, 0, 0); }

  std::wstring FontName() const {
    LOGFONTW font = {};
    const auto handle = reinterpret_cast<HFONT>(SendMessageW(window_, WM_GETFONT, 0, 0));
    GetObjectW(handle, sizeof font, &font);
    return font.lfFaceName;
  }

  static std::wstring TextOf(HWND window) {
    wchar_t text[200] = L"";
    SendMessageW(window, WM_GETTEXT, std::size(text), reinterpret_cast<LPARAM>(text));
    return text;
  }

 private:
  static std::wstring ClassOf(HWND window) {
    wchar_t name[100] = L"";
    GetClassNameW(window, name, static_cast<int>(std::size(name)));
    return name;
  }
  HWND Focus() const {
    GUITHREADINFO info = {};
    info.cbSize = sizeof info;
    GetGUIThreadInfo(GetWindowThreadProcessId(window_, nullptr), &info);
    return info.hwndFocus;
  }

  HWND window_;
};

// Runs `steps` on the dialog with that title, once it is there. The steps end the dialog.
class DialogUser {
 public:
  DialogUser(std::wstring title, std::function<void(const OpenDialog&)> steps)
      : thread_([title = std::move(title), steps = std::move(steps)] {
          HWND window = nullptr;
          WaitUntil([&] { return (window = Find(title)) != nullptr; });
          steps(OpenDialog(window));
          WaitUntil([&] { return !IsWindow(window); });
        }) {}
  DialogUser(const DialogUser&) = delete;
  DialogUser& operator=(const DialogUser&) = delete;
  ~DialogUser() { thread_.join(); }

 private:
  static HWND Find(const std::wstring& title) {
    const HWND window = FindWindowW(L"#32770", title.c_str());
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    return process == GetCurrentProcessId() && IsWindowVisible(window) ? window : nullptr;
  }

  std::thread thread_;
};

}  // namespace marlinda::testing
