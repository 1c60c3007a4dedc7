#include "tests/abuse/child_runs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>

#include "core/handle.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

constexpr int kMostStartAttempts = 5;
constexpr DWORD kStartPause = 1000;

// GoogleTest shows the text of a standard exception, and nothing of another one.
[[noreturn]] void FailToPrepare(const std::string& what) {
  throw std::runtime_error(what + ": " + Hex(LastErrorResult()));
}

std::wstring Widen(const std::string& text) { return {text.begin(), text.end()}; }

// The exit code, or nothing when the child hung.
std::optional<DWORD> WaitForChild(HANDLE child, const SharedReport& report, DWORD hang_seconds) {
  LONG64 calls = -1;
  DWORD quiet = 0;
  while (WaitForSingleObject(child, 1000) == WAIT_TIMEOUT) {
    quiet = report->calls == calls ? quiet + 1 : 0;
    calls = report->calls;
    if (quiet >= hang_seconds) {
      TerminateProcess(child, 1);
      WaitForSingleObject(child, INFINITE);
      return std::nullopt;
    }
  }
  DWORD code = 0;
  GetExitCodeProcess(child, &code);
  return code;
}

// Without the debugger that the system would start.
LONG WINAPI DieAtOnce(EXCEPTION_POINTERS* exception) {
  TerminateProcess(GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
  return EXCEPTION_CONTINUE_SEARCH;
}

int RunChild(int argc, char** argv,
             const std::function<void(const ChildTask&, SharedReport&)>& in_child) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  SetUnhandledExceptionFilter(DieAtOnce);
  std::set_terminate([] { TerminateProcess(GetCurrentProcess(), 3); });
  ChildTask task = {argv[2], std::atoll(argv[3]), {}};
  SharedReport report(Widen(argv[4]));
  for (int i = 5; i < argc; ++i) task.arguments.push_back(Widen(argv[i]));
  in_child(task, report);
  report->finished = 1;
  return 0;
}

}  // namespace

SharedReport::SharedReport(const std::wstring& name)
    : mapping_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Report),
                                  name.c_str())) {
  if (mapping_ == nullptr) FailToPrepare("the memory shared with a child cannot be had");
  report_ = static_cast<Report*>(MapViewOfFile(mapping_, FILE_MAP_WRITE, 0, 0, sizeof(Report)));
  if (report_ == nullptr) FailToPrepare("the memory shared with a child cannot be seen");
}

SharedReport::~SharedReport() {
  UnmapViewOfFile(report_);
  CloseHandle(mapping_);
}

void SharedReport::Begin(LONG64 index, const std::string& name) const {
  report_->index = index;
  std::snprintf(report_->running, sizeof report_->running, "%s", name.c_str());
}

void SharedReport::Fail(const std::string& what) const {
  report_->failures = report_->failures + 1;
  const std::size_t used = std::strlen(report_->texts);
  std::snprintf(report_->texts + used, sizeof report_->texts - used, "%s: %s\n", report_->running,
                what.c_str());
}

HANDLE StartThisProgram(const std::wstring& arguments) {
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  std::wstring command = L"\"" + std::wstring(program) + L"\" " + arguments;
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  // A system short of processes refuses one for a moment. No test is about that.
  for (int attempt = 1; CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                                       nullptr, &startup, &process) == FALSE;
       ++attempt) {
    if (attempt == kMostStartAttempts) FailToPrepare("a child cannot be started");
    std::fprintf(stderr, "a child was not started: %s\n", Hex(LastErrorResult()).c_str());
    Sleep(kStartPause);
  }
  CloseHandle(process.hThread);
  return process.hProcess;
}

Outcome RunInChildren(const std::string& name, const std::vector<std::wstring>& arguments,
                      DWORD hang_seconds, int most_restarts, LONG64 first) {
  static std::atomic<int> counter = 0;
  Outcome outcome;
  for (int run = 0; run <= most_restarts; ++run) {
    const std::wstring mapping = L"tessaly-abuse-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                 std::to_wstring(++counter);
    const SharedReport report(mapping);
    std::wstring line = L"--child " + Widen(name) + L" " + std::to_wstring(first) + L" " + mapping;
    for (const std::wstring& argument : arguments) line += L" \"" + argument + L"\"";
    const KernelHandle child(StartThisProgram(line));
    const auto code = WaitForChild(child.get(), report, hang_seconds);
    outcome.calls += report->calls;
    if (report->failures > 0) outcome.failures.emplace_back(report->texts);
    if (code == DWORD{0} && report->finished != 0) return outcome;
    outcome.failures.push_back(
        (code ? "crashed with " + Hex(static_cast<HRESULT>(*code)) : std::string("hung")) + ": " +
        report->running);
    first = report->index + 1;
  }
  outcome.failures.emplace_back("too many crashes");
  return outcome;
}

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

DWORD TimeLimit(DWORD stated, DWORD busy) {
  return std::getenv("TESSALY_STRICT_TIMES") != nullptr ? stated : busy;
}

int AbuseMain(int argc, char** argv,
              const std::function<void(const ChildTask&, SharedReport&)>& in_child,
              const std::function<void()>& before_tests) {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int result = 1;
  try {
    ModuleUnderTest::Load();
    if (argc >= 5 && std::strcmp(argv[1], "--child") == 0) {
      result = RunChild(argc, argv, in_child);
    } else {
      ::testing::InitGoogleTest(&argc, argv);
      before_tests();
      result = RUN_ALL_TESTS();
      if (!ModuleUnderTest::RevokeAndSeeUnused()) result = 1;
    }
  } catch (const HResultError& error) {
    std::fprintf(stderr, "%s\n", Hex(error.code()).c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  ModuleUnderTest::Revoke();
  CoUninitialize();
  return result;
}

}  // namespace marlinda::testing
