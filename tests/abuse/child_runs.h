// Runs numbered cases in child processes of the test program, so that a crash or a hang is one
// failure with the name of its case, and the run goes on after it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace marlinda::testing {

// What a child tells its parent, in memory that both see.
struct Report {
  volatile LONG64 index;  // of the case that runs
  volatile LONG64 calls;  // a sign of life
  volatile LONG finished;
  volatile LONG failures;
  char running[512];
  char texts[1 << 16];  // a line for each failure
};

class SharedReport {
 public:
  explicit SharedReport(const std::wstring& name);
  SharedReport(const SharedReport&) = delete;
  SharedReport& operator=(const SharedReport&) = delete;
  ~SharedReport();
  Report* operator->() const { return report_; }

  // For the child.
  void Begin(LONG64 index, const std::string& name) const;
  void Count() const { report_->calls = report_->calls + 1; }
  void Fail(const std::string& what) const;

 private:
  HANDLE mapping_;
  Report* report_ = nullptr;
};

struct ChildTask {
  std::string name;
  LONG64 first;  // the number of the case to begin with
  std::vector<std::wstring> arguments;
};

struct Outcome {
  LONG64 calls = 0;
  std::vector<std::string> failures;
};

// Children one after the other, each going on after the case that ended the one before. One that
// does not count for `hang_seconds` hangs.
Outcome RunInChildren(const std::string& name, const std::vector<std::wstring>& arguments,
                      DWORD hang_seconds = 60, int most_restarts = 12, LONG64 first = 0);

// Starts this program again with the given arguments. The handle is the caller's.
HANDLE StartThisProgram(const std::wstring& arguments);

std::string Hex(HRESULT hr);

// The longest that something may take: `busy` milliseconds, for tests run on whatever else a
// machine does, or the `stated` ones when TESSALY_STRICT_TIMES is set, on a quiet one.
DWORD TimeLimit(DWORD stated, DWORD busy);

// The main function of a program whose children run `in_child` and whose parent runs the tests,
// after `before_tests`. Both have the module loaded.
int AbuseMain(int argc, char** argv,
              const std::function<void(const ChildTask&, SharedReport&)>& in_child,
              const std::function<void()>& before_tests);

}  // namespace marlinda::testing
