// marlinda-editor, an audio editor. Opens the files given as arguments, in order, as one document.
#include <windows.h>

#include <shellapi.h>

#include "editor/editor_window.h"
#include "host/wide_text.h"

namespace {

using namespace marlinda;

// Call this before the program creates its first window. An embedded manifest could set the DPI
// awareness, too. But Windows would then ignore the program's manifest file, which lists the
// engine's classes.
void SetDpiAwareness() {
  using Set = BOOL(WINAPI*)(HANDLE);
  constexpr LONG_PTR kPerMonitorV2 = -4;
  const auto set = reinterpret_cast<Set>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"user32"), "SetProcessDpiAwarenessContext")));
  if (set == nullptr || set(reinterpret_cast<HANDLE>(kPerMonitorV2)) == FALSE) SetProcessDPIAware();
}

std::vector<std::string> Arguments() {
  int count = 0;
  wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(Narrow(words[i]));
  LocalFree(words);
  return arguments;
}

int Run() {
  try {
    editor::EditorWindow window;
    window.Open(Arguments());
    return window.Run();
  } catch (...) {
    editor::ShowFailure(nullptr, "The editor cannot start", editor::CurrentFailure());
  }
  return 1;
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
  SetDpiAwareness();
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  const int status = Run();
  CoUninitialize();
  return status;
}
