// What the engine on this machine is made of, and what is wrong with it: the module and its
// registration, import filters, sound devices and the folder for temporary files.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/messages.h"
#include "host/sound_devices.h"

namespace marlinda {

// A program or module file; what cannot be read of it stays empty or 0.
struct ModuleFile {
  std::string path;
  std::string version;
  int bits = 0;
};

// One way by which the system could find the module.
struct Registration {
  std::string kind;  // "manifest", "user" or "machine", in the order in which the system looks
  std::string module;
  bool operator==(const Registration&) const = default;
};

// The module of one bitness: where it is, and where programs of that bitness find it.
struct Engine {
  int bits = 0;
  std::string file;  // beside the program or in its package; empty when it is not there
  std::vector<Registration> registrations;
};

struct ClassState {
  std::string name;
  std::string class_id;
  HRESULT created = S_OK;
  bool Available() const { return SUCCEEDED(created); }
};

struct ListedFilterState {
  std::string value_name;
  std::string class_id;  // as written there
  HRESULT created = S_OK;
};

struct TypeLibraryState {
  std::string name;
  std::string path;
};

struct TemporaryFolder {
  std::string path;
  bool chosen = false;  // by the user, in the registry; otherwise the system's
  std::optional<std::uint64_t> free_bytes;
};

struct Diagnosis {
  ModuleFile program;
  std::optional<ModuleFile> module;  // none when it cannot be loaded
  std::string used;                  // kind of the registration by which it was found
  std::vector<Registration> registrations;
  std::vector<Engine> engines;  // of each bitness that the system runs
  std::optional<TypeLibraryState> type_library;
  std::vector<ClassState> classes;
  ClassState converter;
  std::vector<ListedFilterState> filters;
  std::vector<SoundDevice> outputs;
  std::vector<SoundDevice> inputs;
  TemporaryFolder temporary;

  std::vector<HostError> problems;
  std::vector<HostError> notes;  // may be intended
};

// Looks at everything and goes on after each problem. Opens the default sound devices for a moment
// and has the engine make temporary files; writes nothing that stays.
Diagnosis Diagnose();

}  // namespace marlinda
