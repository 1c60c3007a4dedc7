// "marlinda install-filters": adds the built-in import filters to the registry list that the filter
// manager reads, or removes them.
#include <algorithm>

#include "host/commands/commands.h"
#include "host/commands/shared.h"
#include "host/engine.h"
#include "host/filter_list.h"

namespace marlinda {
namespace {

constexpr const char* kInstallFiltersHelp =
    "Needs the right to write for all users. Listed filters are left alone.\n"
    "Example: marlinda install-filters --remove";

struct Outcome {
  std::string class_name;
  const char* state;
};

void RequireFilter(const BuiltInFilter& filter) {
  CreateObject<IImportFilter>(*filter.class_id, filter.class_name);
}

Outcome Install(const BuiltInFilter& filter, const FilterList& list) {
  const auto lists_it = [&](const ListedFilter& entry) { return Lists(entry, *filter.class_id); };
  if (std::ranges::any_of(list.entries, lists_it)) return {filter.class_name, "listed already"};
  WriteListedFilter(filter.class_name, *filter.class_id);
  return {filter.class_name, "listed"};
}

Outcome Remove(const BuiltInFilter& filter, const FilterList& list) {
  Outcome outcome = {filter.class_name, "not listed"};
  for (const ListedFilter& entry : list.entries) {
    if (!Lists(entry, *filter.class_id)) continue;
    RemoveListedFilter(entry.value_name);
    outcome.state = "removed";
  }
  return outcome;
}

void InstallFilters(bool remove, bool json, const Console& console) {
  const FilterList list = ReadFilterList();
  if (!remove) std::ranges::for_each(BuiltInFilters(), RequireFilter);
  Json outcomes = Json::array();
  for (const BuiltInFilter& filter : BuiltInFilters()) {
    const Outcome outcome = remove ? Remove(filter, list) : Install(filter, list);
    if (!json) console.Print(outcome.class_name + ": " + outcome.state + "\n");
    outcomes.push_back({{"class", outcome.class_name}, {"state", outcome.state}});
  }
  if (json) console.Print(Serialize({{"registry_key", kFilterListKey}, {"filters", outcomes}}));
}

}  // namespace

void AddInstallFilters(CLI::App& app, Console& console) {
  struct Options {
    bool remove = false;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(
      app, "install-filters", "List the built-in import filters in the registry, for all users",
      kInstallFiltersHelp,
      [options, &console] { InstallFilters(options->remove, options->json, console); });
  command->add_flag("--remove", options->remove, "Remove them from the list");
  AddJson(command, options->json);
}

}  // namespace marlinda
