#include "host/messages.h"

#include <cstdio>
#include <optional>
#include <utility>

namespace marlinda {
namespace {

struct Meaning {
  std::uint32_t hresult;
  std::optional<ExitStatus> status;  // if empty, the caller chooses
  const char* reason;
  const char* remedy;
};

constexpr const char* kFreeSpace = "Free some space there, or choose another disk.";
constexpr const char* kOtherName = "Choose another name.";
constexpr const char* kRegister =
    "Register the engine with \"regsvr32 Tessaly.dll\", or keep Tessaly.dll and "
    "marlinda.exe.manifest beside marlinda.exe.";

constexpr Meaning kMeanings[] = {
    {0x80070002, {}, "the file does not exist", "Check the name and the folder."},
    {0x80070003, {}, "the folder does not exist", "Check the path, or create the folder first."},
    {0x80070005, {}, "access is denied", "Check the permissions, and that it is not a folder."},
    {0x80070013, {}, "the disk is write-protected", "Choose another disk."},
    {0x8007001D, ExitStatus::kOutput, "the disk could not be written", "Choose another disk."},
    {0x80070020, {}, "another program has the file open", "Close it there and try again."},
    {0x80070021, {}, "another program has locked the file", "Close it there and try again."},
    {0x80070026, {}, "the data ended too early", ""},
    {0x80070027, ExitStatus::kOutput, "the disk is full", kFreeSpace},
    {0x80070035, {}, "the network path was not found", "Check the path."},
    {0x80070070, ExitStatus::kOutput, "the disk is full", kFreeSpace},
    {0x8007007B, {}, "the name is not a valid file name", kOtherName},
    {0x800700A1, {}, "the path is not valid", kOtherName},
    {0x800700CE, {}, "the name is too long", kOtherName},
    {0x8007000E, ExitStatus::kFailure, "memory ran out", "Close other programs and try again."},
    {0x80004001, {}, "the engine does not offer this operation", ""},
    {0x80004002, {}, "the object lacks a required interface", ""},
    {0x80004005, {}, "the engine reports a general failure", ""},
    {0x8000FFFF, {}, "the engine cannot do this in its present state", ""},
    {0x8007000D, {}, "the data are damaged or of an unsupported kind", "Use another file."},
    {0x80070032, {}, "the system does not support this", ""},
    {0x800705B4, {}, "it did not answer in time", "Try again."},
    {0x80040217,
     {},
     "the system has no decoder or encoder for this",
     "Install one for this kind of file. Writing MP3 needs Mp3Encoder.dll beside Tessaly.dll, "
     "one or two channels and at most 48000 Hz."},
    {0x80070057, {}, "the engine refuses a value it was given", ""},
    {0x80040154, ExitStatus::kRegistration, "the class is not registered", kRegister},
    {0x80040111, ExitStatus::kRegistration, "the registered module does not offer the class",
     "Use the Tessaly.dll that came with this program."},
    {0x800401F8, ExitStatus::kRegistration, "the module of the class is missing", kRegister},
    {0x800401F9, ExitStatus::kRegistration, "the module of the class does not load", kRegister},
    {0x8007007E, ExitStatus::kRegistration, "the module of the class is missing", kRegister},
    {0x800700C1, ExitStatus::kRegistration,
     "the module of the class is damaged or of another bitness",
     "Use the 64-bit Tessaly.dll with 64-bit programs and the 32-bit one with 32-bit programs."},
    {0x8002801D, ExitStatus::kRegistration, "the type library is not registered", kRegister},
    {0x80029C4A, ExitStatus::kRegistration, "the type library cannot be read", kRegister},
    {0x800736B1, ExitStatus::kRegistration, "the manifest beside the program cannot be used",
     kRegister},
};

std::string Compose(const std::string& subject, const std::string& reason,
                    const std::string& remedy) {
  std::string text = subject.empty() ? reason : subject + ": " + reason;
  if (!remedy.empty()) text += "\n  " + remedy;
  return text;
}

}  // namespace

const char* const kRegistrationRemedy = kRegister;

HostError::HostError(ExitStatus status, std::string subject, std::string reason, std::string remedy)
    : status_(status),
      subject_(std::move(subject)),
      reason_(std::move(reason)),
      remedy_(std::move(remedy)),
      text_(Compose(subject_, reason_, remedy_)) {}

HostError Explain(std::int32_t hresult, std::string subject, ExitStatus otherwise) {
  const auto code = static_cast<std::uint32_t>(hresult);
  for (const Meaning& meaning : kMeanings) {
    if (meaning.hresult == code) {
      return {meaning.status.value_or(otherwise), std::move(subject), meaning.reason,
              meaning.remedy};
    }
  }
  char reason[48];
  std::snprintf(reason, sizeof reason, "the system reports error 0x%08X",
                static_cast<unsigned>(code));
  return {otherwise, std::move(subject), reason};
}

HostError UsageError(const std::string& command, std::string reason, std::string subject) {
  return {ExitStatus::kUsage, std::move(subject), std::move(reason),
          "See \"marlinda " + command + " --help\"."};
}

}  // namespace marlinda
