// "marlinda install-filters": adds the built-in import filters to the filter manager's list in the
// registry, or removes them.
#include "host/commands/shared.h"
#include "host/engine.h"
#include "host/filter_list.h"

namespace marlinda {
namespace {

constexpr const char* kInstallFiltersHelp =
    "Needs the right to write for all users. Listed filters are left alone.\n"
    "Example: marlinda install-filters --remove";

struct InstallOptions {
  bool remove = false;
  bool json = false;
};

// Install and Remove return the filter's new state.
const char* Install(const BuiltInFilter& filter, const FilterList& list) {
  if (list.Holds(*filter.class_id)) return "listed already";
  WriteListedFilter(filter.class_name, *filter.class_id);
  return "listed";
}

const char* Remove(const BuiltInFilter& filter, const FilterList& list) {
  for (const ListedFilter& entry : list.entries) {
    if (entry.Names(*filter.class_id)) RemoveListedFilter(entry.value_name);
  }
  return list.Holds(*filter.class_id) ? "removed" : "not listed";
}

void InstallFilters(const InstallOptions& options, const Console& console) {
  const FilterList list = ReadFilterList();
  for (const BuiltInFilter& filter : BuiltInFilters()) {
    if (!options.remove) CreateObject<IImportFilter>(*filter.class_id, filter.class_name);
  }
  Json outcomes = Json::array();
  for (const BuiltInFilter& filter : BuiltInFilters()) {
    const std::string state = options.remove ? Remove(filter, list) : Install(filter, list);
    if (!options.json) console.Print(filter.class_name + (": " + state) + "\n");
    outcomes.push_back({{"class", filter.class_name}, {"state", state}});
  }
  if (!options.json) return;
  console.Print(Serialize({{"registry_key", kFilterListKey}, {"filters", outcomes}}));
}

}  // namespace

void AddInstallFilters(CLI::App& app, Console& console) {
  const auto [command, options] =
      AddCommand(app, console, "install-filters",
                 "List the built-in import filters in the registry, for all users",
                 kInstallFiltersHelp, InstallFilters);
  command->add_flag("--remove", options->remove, "Remove them from the list");
  AddJson(command, options->json);
}

}  // namespace marlinda
