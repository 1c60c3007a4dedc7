// Operates the mouse and keyboard of a running editor and reads its window. Reads one command a
// line from standard input and writes one answer a line to standard output. All texts are ASCII.
#include <windows.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "editor/resource.h"

namespace {

using Words = std::vector<std::string>;

HWND editor = nullptr;
HWND dialog = nullptr;

std::string TextOf(HWND window) {
  char text[1000] = "";
  // Asks again after a timeout, because Wine loses the answer of a window that is being destroyed.
  while (IsWindow(window) != FALSE &&
         SendMessageTimeoutA(window, WM_GETTEXT, std::size(text), reinterpret_cast<LPARAM>(text),
                             SMTO_NORMAL, 1000, nullptr) == 0) {
  }
  return text;
}

std::string Status() { return TextOf(GetDlgItem(editor, ID_STATUS)); }

// Waits without a limit. CTest ends a test that hangs.
template <class Condition>
void WaitUntil(Condition condition) {
  while (!condition()) Sleep(10);
}

std::string Rest(const Words& words, std::size_t from) {
  std::string text;
  for (std::size_t i = from; i < words.size(); ++i) text += (i > from ? " " : "") + words[i];
  return text;
}

void Key(WORD key, bool down) {
  INPUT input = {};
  input.type = INPUT_KEYBOARD;
  input.ki.wVk = key;
  input.ki.dwFlags = down ? 0 : KEYEVENTF_KEYUP;
  SendInput(1, &input, sizeof input);
}

// A dialog accepts input once one of its controls has the focus.
bool FindDialog(const std::string& title) {
  dialog = FindWindowA("#32770", title.c_str());
  GUITHREADINFO info = {};
  info.cbSize = sizeof info;
  return dialog != nullptr && IsWindowVisible(dialog) != FALSE &&
         GetGUIThreadInfo(GetWindowThreadProcessId(dialog, nullptr), &info) != FALSE &&
         IsChild(dialog, info.hwndFocus) != FALSE;
}

std::string DialogText() {
  std::string text;
  for (HWND item = GetWindow(dialog, GW_CHILD); item; item = GetWindow(item, GW_HWNDNEXT)) {
    text += TextOf(item) + " ";
  }
  std::ranges::replace_if(
      text, [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return text;
}

std::string Obey(const Words& words) {
  const std::string& order = words[0];
  const auto number = [&](std::size_t i) { return std::stoi(words.at(i)); };
  if (order == "find") {
    editor = FindWindowA("MarlindaEditor", nullptr);
    if (editor == nullptr || IsWindowVisible(editor) == FALSE) return "none";
    SetForegroundWindow(editor);
  } else if (order == "status") {
    return Status();
  } else if (order == "await") {
    WaitUntil([&] { return Status().find(Rest(words, 1)) != std::string::npos; });
  } else if (order == "await_title") {
    WaitUntil([&] { return TextOf(editor) == Rest(words, 1); });
  } else if (order == "key") {
    SetForegroundWindow(editor);
    for (std::size_t i = 1; i < words.size(); ++i) Key(static_cast<WORD>(number(i)), true);
    for (std::size_t i = words.size(); --i > 0;) Key(static_cast<WORD>(number(i)), false);
  } else if (order == "size") {
    SetWindowPos(editor, nullptr, 0, 0, number(1), number(2), SWP_NOZORDER);
  } else if (order == "mouse") {
    // Sends messages, because the display sometimes moves the pointer back.
    SendMessageA(editor, static_cast<UINT>(number(1)), 0, MAKELPARAM(number(2), number(3)));
  } else if (order == "dialog") {
    WaitUntil([&] { return FindDialog(Rest(words, 1)); });
    return DialogText();
  } else if (order == "question") {
    // The question is a window on top of the dialog.
    const HWND below = dialog;
    WaitUntil([&] { return (dialog = GetLastActivePopup(below)) != below; });
    return DialogText();
  } else if (order == "enter") {
    const std::string text = Rest(words, 2);
    const HWND field = GetDlgItem(dialog, number(1));
    WaitUntil([&] {
      SendMessageA(field, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text.c_str()));
      SendMessageA(dialog, WM_NULL, 0, 0);
      return TextOf(field) == text;
    });
  } else if (order == "click") {
    const HWND shown = dialog;
    PostMessageA(GetDlgItem(shown, number(1)), BM_CLICK, 0, 0);
    if (words.size() == 2) WaitUntil([&] { return IsWindowVisible(shown) == FALSE; });
  } else if (order == "close") {
    PostMessageA(editor, WM_CLOSE, 0, 0);
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
