// Failure messages and their exit statuses.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace marlinda {

// Status 5 is unused. After an access violation, a program exits with 0xC0000005, of which some
// shells show only the low byte.
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

// A failure: the file, class or option concerned, the reason and optionally a remedy.
class HostError : public std::exception {
 public:
  HostError(ExitStatus status, std::string subject, std::string reason, std::string remedy = "");

  ExitStatus status() const noexcept { return status_; }
  const std::string& subject() const noexcept { return subject_; }
  const std::string& reason() const noexcept { return reason_; }
  const std::string& remedy() const noexcept { return remedy_; }
  // "subject: reason", then the remedy on a second line.
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  ExitStatus status_;
  std::string subject_;
  std::string reason_;
  std::string remedy_;
  std::string text_;
};

// A usage error of `command`; `subject` names the wrong argument if only one is wrong.
HostError UsageError(const std::string& command, std::string reason, std::string subject = "");

// The remedy for classes that are not registered.
extern const char* const kRegistrationRemedy;

// Describes the failure `hresult` of the system or the engine. Results with a clear cause (a full
// disk, a missing class) have their own status; all others get `otherwise`.
HostError Explain(std::int32_t hresult, std::string subject, ExitStatus otherwise);

}  // namespace marlinda
