// "marlinda filters": lists the import filters in the registry, then the built-in filters that the
// registry lacks.
#include <sstream>

#include "host/commands/shared.h"
#include "host/filter_list.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

struct FilterReport {
  std::string class_name;
  std::string class_id;
  std::optional<std::string> listed_as = {};  // value name in the registry
  bool available = false;
  SHORT merit = 0;
  std::string description = {};
  std::string patterns = {};
};

// Fills in the report. A filter that cannot be created stays unavailable.
void Ask(REFCLSID class_id, FilterReport& report) {
  ComPtr<IImportFilter> filter;
  if (FAILED(CreateInstance(class_id, filter))) return;
  report.available = true;
  if (report.class_name.empty()) report.class_name = IdentityOf(filter.Get()).class_name;
  filter->GetMerit(&report.merit);
  Bstr description;
  Bstr patterns;
  if (SUCCEEDED(filter->GetFilterStrings(description.Receive(), patterns.Receive()))) {
    // The text is meant for a file dialog: description and patterns, separated by "|".
    const std::string text = description.utf8();
    report.description = text.substr(0, text.find('|'));
    report.patterns = patterns.utf8();
  }
}

std::vector<FilterReport> Report(const FilterList& list) {
  std::vector<FilterReport> reports;
  for (const ListedFilter& entry : list.entries) {
    FilterReport report = {"", entry.class_id, entry.value_name};
    CLSID class_id;
    if (SUCCEEDED(CLSIDFromString(Widen(entry.class_id).c_str(), &class_id))) {
      report.class_id = ClassIdText(class_id);
      Ask(class_id, report);
    }
    reports.push_back(report);
  }
  for (const BuiltInFilter& built_in : BuiltInFilters()) {
    if (list.Holds(*built_in.class_id)) continue;
    FilterReport report = {built_in.class_name, ClassIdText(*built_in.class_id)};
    Ask(*built_in.class_id, report);
    reports.push_back(report);
  }
  return reports;
}

Json PatternList(const std::string& patterns) {
  Json list = Json::array();
  std::istringstream words(patterns);
  for (std::string pattern; std::getline(words, pattern, ';');) list.push_back(pattern);
  return list;
}

Json ToJson(const FilterReport& report) {
  return {{"class", report.class_name.empty() ? Json(nullptr) : Json(report.class_name)},
          {"class_id", report.class_id},
          {"listed_as", OrNull(report.listed_as)},
          {"available", report.available},
          {"merit", report.available ? Json(report.merit) : Json(nullptr)},
          {"description", report.description},
          {"patterns", PatternList(report.patterns)}};
}

std::string ToLine(const FilterReport& report) {
  const std::string name = report.class_name.empty() ? "unknown class" : report.class_name;
  std::string line = name + "  " + report.class_id + "\n    ";
  line += report.listed_as ? "listed as \"" + *report.listed_as + "\"" : "built in, not listed";
  if (!report.available) return line + ", cannot be created\n";
  return line + ", merit " + std::to_string(report.merit) + ", " + report.patterns + "\n";
}

void ListFilters(bool json, const Console& console) {
  const auto manager = CreateObject<IFileFilterMgr>(CLSID_CFileFilterMgr, "CFileFilterMgr");
  const FilterList list = ReadFilterList();
  if (list.cut_short) {
    console.Tell(std::string(kFilterListKey) +
                 ": one value is too long, so the engine ignores it and the filters after it\n"
                 "  Remove the value.");
  }
  const std::vector<FilterReport> reports = Report(list);
  if (!json) {
    for (const FilterReport& report : reports) console.Print(ToLine(report));
    return;
  }
  Bstr dialog_filter;
  Check(manager->GetImportFilterString(dialog_filter.Receive()));
  Json filters = Json::array();
  for (const FilterReport& report : reports) filters.push_back(ToJson(report));
  console.Print(Serialize({{"registry_key", kFilterListKey},
                           {"filters", filters},
                           {"dialog_filter", dialog_filter.utf8()}}));
}

}  // namespace

void AddFilters(CLI::App& app, Console& console) {
  const auto json = std::make_shared<bool>();
  AddJson(AddCommand(app, "filters", "List the import filters", "Example: marlinda filters --json",
                     [json, &console] { ListFilters(*json, console); }),
          *json);
}

}  // namespace marlinda
