// "marlinda doctor": the parts of the engine on this machine, and their problems.

#include <algorithm>
#include <array>
#include <cstdio>

#include "host/commands/commands.h"
#include "host/commands/shared.h"
#include "host/diagnosis.h"

namespace marlinda {
namespace {

Json ToJson(const ModuleFile& file) {
  return {{"path", file.path},
          {"version", file.version.empty() ? Json(nullptr) : Json(file.version)},
          {"bits", file.bits == 0 ? Json(nullptr) : Json(file.bits)}};
}

Json ToJson(const std::vector<HostError>& errors) {
  Json list = Json::array();
  for (const HostError& error : errors) {
    Json entry = {
        {"subject", error.subject()}, {"cause", error.reason()}, {"remedy", error.remedy()}};
    if (error.status() != ExitStatus::kSuccess) entry["status"] = static_cast<int>(error.status());
    list.push_back(entry);
  }
  return list;
}

Json NamesOf(const std::vector<SoundDevice>& devices) {
  Json list = Json::array();
  for (const SoundDevice& device : devices) list.push_back(device.name);
  return list;
}

Json ToJson(const std::vector<Registration>& registrations) {
  Json list = Json::array();
  for (const Registration& registration : registrations) {
    list.push_back({{"kind", registration.kind}, {"module", registration.module}});
  }
  return list;
}

Json ToJson(const Diagnosis& diagnosis) {
  Json engines = Json::array();
  for (const Engine& engine : diagnosis.engines) {
    engines.push_back({{"bits", engine.bits},
                       {"file", engine.file.empty() ? Json(nullptr) : Json(engine.file)},
                       {"registrations", ToJson(engine.registrations)}});
  }
  Json classes = Json::array();
  for (const ClassState& state : diagnosis.classes) {
    classes.push_back(
        {{"class", state.name}, {"class_id", state.class_id}, {"available", state.Available()}});
  }
  Json filters = Json::array();
  for (const ListedFilterState& filter : diagnosis.filters) {
    filters.push_back({{"listed_as", filter.value_name},
                       {"class_id", filter.class_id},
                       {"available", SUCCEEDED(filter.created)}});
  }
  const auto& library = diagnosis.type_library;
  const TemporaryFolder& temporary = diagnosis.temporary;
  return {{"program", ToJson(diagnosis.program)},
          {"module", diagnosis.module ? ToJson(*diagnosis.module) : Json(nullptr)},
          {"found_by", diagnosis.module ? Json(diagnosis.used) : Json(nullptr)},
          {"registrations", ToJson(diagnosis.registrations)},
          {"engines", engines},
          {"type_library",
           library ? Json{{"name", library->name}, {"path", library->path}} : Json(nullptr)},
          {"classes", classes},
          {"converter_available", diagnosis.converter.Available()},
          {"filters", filters},
          {"outputs", NamesOf(diagnosis.outputs)},
          {"inputs", NamesOf(diagnosis.inputs)},
          {"temporary_folder",
           {{"path", temporary.path},
            {"chosen", temporary.chosen},
            {"free_bytes", OrNull(temporary.free_bytes)}}},
          {"notes", ToJson(diagnosis.notes)},
          {"problems", ToJson(diagnosis.problems)}};
}

std::string Line(std::string name, const std::string& value) {
  name.resize(14, ' ');
  return name + value + "\n";
}

std::string ToText(const ModuleFile& file) {
  return file.path + ", version " + (file.version.empty() ? "unknown" : file.version) + ", " +
         (file.bits == 0 ? "unknown bitness" : std::to_string(file.bits) + "-bit");
}

std::string Places(const std::vector<Registration>& registrations) {
  if (registrations.empty()) return "nowhere";
  std::string text;
  for (const Registration& registration : registrations) {
    if (!text.empty()) text += "; ";
    text += (registration.kind == "manifest" ? "manifest beside the program"
                                             : "registry, for the " + registration.kind) +
            ": " + registration.module;
  }
  return text;
}

std::string ToText(const Engine& engine) {
  const std::string file = engine.file.empty() ? "not here" : engine.file;
  return file + "; " +
         (engine.registrations.empty() ? "not registered" : Places(engine.registrations));
}

std::string ToText(const std::vector<SoundDevice>& devices) {
  if (devices.empty()) return "none";
  std::string text;
  for (const SoundDevice& device : devices) text += (text.empty() ? "" : ", ") + device.name;
  return text;
}

std::string Classes(const std::vector<ClassState>& classes) {
  const auto count = std::ranges::count_if(classes, &ClassState::Available);
  return std::to_string(count) + " of " + std::to_string(classes.size()) + " can be created";
}

std::string Filters(const std::vector<ListedFilterState>& filters) {
  if (filters.empty()) return "none listed";
  std::string text;
  for (const ListedFilterState& filter : filters) {
    text += (text.empty() ? "" : ", ") + filter.value_name +
            (SUCCEEDED(filter.created) ? "" : " (cannot be created)");
  }
  return text;
}

std::string ToText(const TemporaryFolder& folder) {
  std::string text = folder.path + (folder.chosen ? ", chosen in the registry" : ", the system's");
  if (folder.free_bytes) text += ", " + std::to_string(*folder.free_bytes >> 20U) + " MiB free";
  return text;
}

std::string ToText(const Diagnosis& diagnosis) {
  std::string text = Line("program", ToText(diagnosis.program));
  text += Line("module", diagnosis.module ? ToText(*diagnosis.module) : "cannot be used");
  if (diagnosis.module) text += Line("found by", diagnosis.used);
  text += Line("registered", Places(diagnosis.registrations));
  for (const Engine& engine : diagnosis.engines) {
    text += Line(std::to_string(engine.bits) + " bits", ToText(engine));
  }
  text += Line("type library", diagnosis.type_library ? diagnosis.type_library->name + ", " +
                                                            diagnosis.type_library->path
                                                      : "missing");
  if (!diagnosis.classes.empty()) text += Line("classes", Classes(diagnosis.classes));
  text += Line("converter", diagnosis.converter.Available() ? "can be created" : "missing");
  text += Line("filters", Filters(diagnosis.filters));
  text += Line("outputs", ToText(diagnosis.outputs));
  text += Line("inputs", ToText(diagnosis.inputs));
  text += Line("temporary", ToText(diagnosis.temporary));
  for (const HostError& note : diagnosis.notes) text += std::string("note: ") + note.what() + "\n";
  for (const HostError& problem : diagnosis.problems) {
    text += std::string("problem: ") + problem.what() + "\n";
  }
  return diagnosis.problems.empty() ? text + "no problems\n" : text;
}

ExitStatus Gravest(const std::vector<HostError>& problems) {
  constexpr std::array kOrder = {ExitStatus::kFailure, ExitStatus::kRegistration,
                                 ExitStatus::kOutput, ExitStatus::kDevice};
  for (const ExitStatus status : kOrder) {
    if (std::ranges::any_of(problems, [&](auto& p) { return p.status() == status; })) return status;
  }
  return ExitStatus::kFailure;
}

// Prints everything that was found, then throws with the status of the gravest problem, if any:
// registration before the temporary folder before sound devices.
void Report(bool json, const Console& console) {
  const Diagnosis diagnosis = Diagnose();
  console.Print(json ? Serialize(ToJson(diagnosis)) : ToText(diagnosis));
  if (diagnosis.problems.empty()) return;
  const std::size_t count = diagnosis.problems.size();
  static_cast<void>(std::fflush(stdout));  // before the message on the other stream
  throw HostError(
      Gravest(diagnosis.problems), "",
      count == 1 ? "there is 1 problem" : "there are " + std::to_string(count) + " problems");
}

}  // namespace

void AddDoctor(CLI::App& app, Console& console) {
  const auto json = std::make_shared<bool>();
  AddJson(AddCommand(app, "doctor", "Check the installation and name a remedy for each problem",
                     "Example: marlinda doctor", [json, &console] { Report(*json, console); }),
          *json);
}

}  // namespace marlinda
