#include "host/console.h"

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <atomic>
#include <cstdio>
#include <iostream>

#include "core/com_call.h"
#include "core/handle.h"
#include "host/messages.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

// Global, because the control handler is a plain function on a system thread.
KernelHandle interrupt_event;
std::atomic<int> finishing_count = 0;

bool IsInterrupted() { return WaitForSingleObject(interrupt_event.get(), 0) == WAIT_OBJECT_0; }

void ServeMessages() {
  MSG message;
  while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
}

BOOL WINAPI HandleControl(DWORD event) {
  const bool again = IsInterrupted();
  SetEvent(interrupt_event.get());
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
    // The window closes or the user logs off. The system ends the process when this handler
    // returns, or after a few seconds. Sleeping gives the main thread this time to finish the file.
    Sleep(INFINITE);
  }
  if (again && finishing_count == 0) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ExitStatus::kInterrupted));
  }
  return TRUE;
}

}  // namespace

Console::Finishing::Finishing() { ++finishing_count; }
Console::Finishing::~Finishing() { --finishing_count; }

Console::Console() : old_code_page_(GetConsoleOutputCP()) {
  SetConsoleOutputCP(CP_UTF8);
  for (std::FILE* stream : {stdout, stderr}) {
    _setmode(_fileno(stream), _O_BINARY);
    // Buffers the output, because a console cannot join the bytes of a UTF-8 character that arrive
    // one by one.
    std::setvbuf(stream, nullptr, _IOFBF, 1 << 12);
  }
  interrupt_event = KernelHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!interrupt_event) throw HResultError(LastErrorResult());
  SetConsoleCtrlHandler(HandleControl, TRUE);
}

Console::~Console() {
  // The handler stays and now ignores Ctrl+C, so that Ctrl+C cannot replace the exit status.
  ++finishing_count;
  if (old_code_page_ != 0) SetConsoleOutputCP(old_code_page_);
}

std::vector<std::string> Console::Arguments() {
  int count = 0;
  wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
  if (words == nullptr) throw HResultError(LastErrorResult());
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(Narrow(words[i]));
  LocalFree(words);
  return arguments;
}

ProgressOutput Console::Progress() const {
  if (progress_lines_) return {.lines = &std::cerr};
  DWORD mode = 0;
  if (GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) == FALSE) return {};
  return {.terminal = &std::cerr};
}

bool Console::Interrupted() const { return IsInterrupted(); }

void Console::ForgetInterrupt() const { ResetEvent(interrupt_event.get()); }

void Console::Wait(DWORD milliseconds) const {
  const HANDLE event = interrupt_event.get();
  MsgWaitForMultipleObjects(1, &event, FALSE, milliseconds, QS_ALLINPUT);
  ServeMessages();
}

bool Console::HasKeyboard() const {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != FALSE;
}

std::optional<WORD> Console::ReadKey(DWORD milliseconds) const {
  const HANDLE keyboard = GetStdHandle(STD_INPUT_HANDLE);
  const HANDLE handles[] = {interrupt_event.get(), keyboard};
  if (MsgWaitForMultipleObjects(2, handles, FALSE, milliseconds, QS_ALLINPUT) ==
      WAIT_OBJECT_0 + 1) {
    INPUT_RECORD record = {};
    DWORD count = 0;
    if (ReadConsoleInputW(keyboard, &record, 1, &count) != FALSE && count == 1 &&
        record.EventType == KEY_EVENT && record.Event.KeyEvent.bKeyDown != FALSE) {
      return record.Event.KeyEvent.wVirtualKeyCode;
    }
  }
  ServeMessages();
  return std::nullopt;
}

void Console::Print(const std::string& text) const {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void Console::Tell(const std::string& message) const {
  std::fprintf(stderr, "marlinda: %s\n", message.c_str());
  std::fflush(stderr);
}

}  // namespace marlinda
