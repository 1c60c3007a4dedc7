// Works the mouse and the keyboard of a running editor and reads its window, for a script: an order
// a line on standard input, an answer a line on standard output.
#include <windows.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "editor/resource.h"

namespace {

using Words = std::vector<std::string>;

HWND editor = nullptr;
HWND dialog = nullptr;

std::wstring Widen(const std::string& text) {
  std::wstring wide(
      static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0)),
      L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, wide.data(), static_cast<int>(wide.size()));
  wide.pop_back();
  return wide;
}

std::string TextOf(HWND window) {
  wchar_t text[1000] = L"";
  SendMessageW(window, WM_GETTEXT, std::size(text), reinterpret_cast<LPARAM>(text));
  char utf8[3000] = "";
  WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8, sizeof utf8, nullptr, nullptr);
  return utf8;
}

// States that never come hang, and the test runner ends the test.
template <class Condition>
void WaitUntil(Condition condition) {
  while (!condition()) Sleep(10);
}

std::string Rest(const Words& words, std::size_t from) {
  std::string text;
  for (std::size_t i = from; i < words.size(); ++i) text += (i > from ? " " : "") + words[i];
  return text;
}

std::string Status() { return TextOf(GetDlgItem(editor, ID_STATUS)); }

void Send(INPUT input) { SendInput(1, &input, sizeof input); }

void Key(WORD key, bool down) {
  INPUT input = {};
  input.type = INPUT_KEYBOARD;
  input.ki.wVk = key;
  input.ki.dwFlags = down ? 0 : KEYEVENTF_KEYUP;
  Send(input);
}

// "key ctrl shift 90": the last word is a virtual key.
void PressKeys(const Words& words) {
  std::vector<WORD> keys;
  for (std::size_t i = 1; i < words.size(); ++i) {
    keys.push_back(words[i] == "ctrl"    ? static_cast<WORD>(VK_CONTROL)
                   : words[i] == "shift" ? static_cast<WORD>(VK_SHIFT)
                                         : static_cast<WORD>(std::stoi(words[i])));
  }
  for (const WORD key : keys) Key(key, true);
  for (auto key = keys.rbegin(); key != keys.rend(); ++key) Key(*key, false);
}

// A dialog is set up once it has the keyboard.
void AwaitDialog(const std::wstring& title) {
  WaitUntil([&] {
    dialog = FindWindowW(L"#32770", title.c_str());
    GUITHREADINFO info = {};
    info.cbSize = sizeof info;
    return dialog != nullptr && IsWindowVisible(dialog) != FALSE &&
           GetGUIThreadInfo(GetWindowThreadProcessId(dialog, nullptr), &info) != FALSE &&
           IsChild(dialog, info.hwndFocus) != FALSE;
  });
}

std::string DialogText() {
  std::string text;
  for (HWND item = GetWindow(dialog, GW_CHILD); item; item = GetWindow(item, GW_HWNDNEXT)) {
    text += TextOf(item) + " ";
  }
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

std::string Obey(const Words& words) {
  const std::string& order = words[0];
  const auto number = [&](std::size_t i) { return std::stoi(words.at(i)); };
  if (order == "find") {
    editor = FindWindowW(L"MarlindaEditor", nullptr);
    if (editor == nullptr || IsWindowVisible(editor) == FALSE) return "none";
    SetForegroundWindow(editor);
    return "found";
  }
  if (order == "title") return TextOf(editor);
  if (order == "status") return Status();
  if (order == "await") {
    const std::string text = Rest(words, 1);
    WaitUntil([&] { return Status().find(text) != std::string::npos; });
    return Status();
  }
  if (order == "await_title") {
    WaitUntil([&] { return TextOf(editor) == Rest(words, 1); });
    return TextOf(editor);
  }
  if (order == "key") {
    SetForegroundWindow(editor);
    PressKeys(words);
  } else if (order == "size") {
    SetWindowPos(editor, nullptr, 0, 0, number(1), number(2), SWP_NOZORDER);
  } else if (order == "mouse") {
    // As messages: a pointer that is moved elsewhere is moved back by the display at times.
    SendMessageW(editor, static_cast<UINT>(number(1)), 0, MAKELPARAM(number(2), number(3)));
  } else if (order == "dialog") {
    AwaitDialog(Widen(Rest(words, 1)));
    return DialogText();
  } else if (order == "question") {
    // On top of the dialog.
    const HWND below = dialog;
    WaitUntil([&] { return (dialog = GetLastActivePopup(below)) != below; });
    return DialogText();
  } else if (order == "enter") {
    const std::string text = Rest(words, 2);
    const HWND field = GetDlgItem(dialog, number(1));
    WaitUntil([&] {
      SendMessageW(field, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(Widen(text).c_str()));
      SendMessageW(dialog, WM_NULL, 0, 0);
      return TextOf(field) == text;
    });
  } else if (order == "click") {
    const HWND shown = dialog;
    PostMessageW(GetDlgItem(shown, number(1)), BM_CLICK, 0, 0);
    if (words.size() == 2) WaitUntil([&] { return IsWindowVisible(shown) == FALSE; });
  } else if (order == "close") {
    PostMessageW(editor, WM_CLOSE, 0, 0);
  } else {
    return "unknown order";
  }
  return "ok";
}

}  // namespace

int main() {
  SetProcessDPIAware();
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) words.push_back(word);
    if (words.empty()) continue;
    std::cout << Obey(words) << std::endl;
  }
}
