// The terminal: UTF-8 arguments and output, where a progress bar may be drawn, and Ctrl+C.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "host/progress.h"

namespace marlinda {

class Console {
 public:
  // While one lives, a second Ctrl+C changes nothing: the file that is being written, or the take
  // that is being recorded, is finished in moments and must not be left broken.
  class Finishing {
   public:
    Finishing();
    ~Finishing();
    Finishing(const Finishing&) = delete;
    Finishing& operator=(const Finishing&) = delete;
  };

  // From here on output is UTF-8 and Ctrl+C no longer ends the program but sets Interrupted; a
  // second Ctrl+C ends it at once with the status of an interruption.
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // The command line without the program's name.
  static std::vector<std::string> Arguments();

  // Progress as lines instead of a bar, wherever standard error goes.
  void WriteProgressLines() { progress_lines_ = true; }
  // The bar is for a terminal only.
  ProgressOutput Progress() const;

  bool Interrupted() const;
  // For a command that has ended its work because of Ctrl+C and has yet to save it: the next Ctrl+C
  // is a first one again.
  void ForgetInterrupt() const;

  // Waits at most so long, less when interrupted, and serves the window messages that the
  // single-threaded apartment lives by.
  void Wait(DWORD milliseconds) const;

  // True when standard input is a terminal; ReadKey returns its keys.
  bool HasKeyboard() const;
  // The virtual-key code of the next key that is pressed; nothing after so long without one, or
  // when interrupted. Serves window messages like Wait.
  std::optional<WORD> ReadKey(DWORD milliseconds) const;

  // Data on standard output.
  void Print(const std::string& text) const;
  // A message on standard error, with the program's name before it.
  void Tell(const std::string& message) const;

 private:
  UINT old_code_page_;
  bool progress_lines_ = false;
};

}  // namespace marlinda
