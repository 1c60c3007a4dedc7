// Messages about failures, and the exit status of each.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace marlinda {

// 5 stays free, because a program that crashed ends with it.
enum class ExitStatus {
  kSuccess = 0,
  kFailure = 1,
  kUsage = 2,
  kInput = 3,
  kOutput = 4,
  kRegistration = 6,
  kDevice = 7,
  kInterrupted = 130,
};

// A failure on its way to main: which file, class or option it is about, the reason and, where
// there is one, the remedy.
class HostError : public std::exception {
 public:
  HostError(ExitStatus status, std::string subject, std::string reason, std::string remedy = "");

  ExitStatus status() const noexcept { return status_; }
  const std::string& subject() const noexcept { return subject_; }
  const std::string& reason() const noexcept { return reason_; }
  const std::string& remedy() const noexcept { return remedy_; }
  // "subject: reason", and the remedy on a line of its own.
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  ExitStatus status_;
  std::string subject_;
  std::string reason_;
  std::string remedy_;
  std::string text_;
};

// A wrong command line of `command`, about `subject` where one argument is to blame.
HostError UsageError(const std::string& command, std::string reason, std::string subject = "");

// How to make the engine's classes known, for whatever failed for want of them.
extern const char* const kRegistrationRemedy;

// The failure `hresult` of the system or the engine, about `subject`. A result that shows by itself
// what is wrong (a full disk, a missing class) decides the status; otherwise it is `otherwise`.
HostError Explain(std::int32_t hresult, std::string subject, ExitStatus otherwise);

}  // namespace marlinda
