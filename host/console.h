// The terminal: UTF-8 arguments and output, progress, keys and Ctrl+C.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "host/progress.h"

namespace marlinda {

class Console {
 public:
  // While an object of this class exists, a second Ctrl+C is ignored, so that the command can
  // complete its file or recording.
  class Finishing {
   public:
    Finishing();
    ~Finishing();
    Finishing(const Finishing&) = delete;
    Finishing& operator=(const Finishing&) = delete;
  };

  // Sets output to UTF-8. From now on, the first Ctrl+C only sets Interrupted. The second Ctrl+C
  // ends the program at once with ExitStatus::kInterrupted.
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Returns the command line without the program's name.
  static std::vector<std::string> Arguments();

  // Reports progress as lines on standard error instead of a bar.
  void WriteProgressLines() { progress_lines_ = true; }
  // Returns where to show progress. The bar is drawn only if standard error is a terminal.
  ProgressOutput Progress() const;

  bool Interrupted() const;
  // Resets Interrupted, so that the next Ctrl+C counts as the first. Call this after work that
  // Ctrl+C may end, before the result is saved.
  void ForgetInterrupt() const;

  // Waits for Ctrl+C or a window message, at most `milliseconds`. Dispatches window messages, which
  // the single-threaded apartment needs.
  void Wait(DWORD milliseconds) const;

  // True if standard input is a terminal. ReadKey needs one.
  bool HasKeyboard() const;
  // Waits like Wait, but also for console input. Returns the virtual-key code if the input is a key
  // press, otherwise nothing.
  std::optional<WORD> ReadKey(DWORD milliseconds) const;

  // Writes data to standard output.
  void Print(const std::string& text) const;
  // Writes a message to standard error, after the program's name.
  void Tell(const std::string& message) const;

 private:
  UINT old_code_page_;
  bool progress_lines_ = false;
};

}  // namespace marlinda
