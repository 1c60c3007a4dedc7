#include "host/commands/install_filters.h"

#include <algorithm>

#include "host/commands/json.h"
#include "host/engine.h"
#include "host/filter_list.h"

namespace marlinda {
namespace {

struct Outcome {
  std::string class_name;
  const char* state;
};

bool CanCreate(const BuiltInFilter& filter) {
  ComPtr<IImportFilter> created;
  return SUCCEEDED(CreateInstance(*filter.class_id, created));
}

Outcome Install(const BuiltInFilter& filter, const FilterList& list) {
  const auto lists_it = [&](const ListedFilter& entry) { return Lists(entry, *filter.class_id); };
  if (!CanCreate(filter)) return {filter.class_name, "unavailable"};
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

}  // namespace

void RunInstallFilters(bool remove, bool json, const Console& console) {
  const FilterList list = ReadFilterList();
  if (!remove && std::ranges::none_of(BuiltInFilters(), CanCreate)) {
    throw HostError(ExitStatus::kRegistration, "import filters",
                    "none of the built-in ones can be created", kRegistrationRemedy);
  }
  Json outcomes = Json::array();
  for (const BuiltInFilter& filter : BuiltInFilters()) {
    const Outcome outcome = remove ? Remove(filter, list) : Install(filter, list);
    if (!json) console.Print(outcome.class_name + ": " + outcome.state + "\n");
    outcomes.push_back({{"class", outcome.class_name}, {"state", outcome.state}});
  }
  if (json) console.Print(ToText({{"registry_key", kFilterListKey}, {"filters", outcomes}}));
}

}  // namespace marlinda
