// The list of import filters in the registry, where the engine's filter manager looks, and the
// filters that come with the engine.
#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <vector>

namespace marlinda {

// As a user would find it in a registry editor.
extern const char* const kFilterListKey;

struct ListedFilter {
  bool Names(REFCLSID id) const;

  std::string value_name;
  std::string class_id;  // as written there, well formed or not
};

struct FilterList {
  bool Holds(REFCLSID class_id) const;

  std::vector<ListedFilter> entries;  // in the order in which the manager tries them
  // A value too long for the manager ends the list for it; those behind it are not in `entries`.
  bool cut_short = false;
};

// A missing key is an empty list. Throws a HostError.
FilterList ReadFilterList();

// Writes or removes one value. Throw a HostError; removing what is not there is no failure.
void WriteListedFilter(const std::string& value_name, REFCLSID class_id);
void RemoveListedFilter(const std::string& value_name);

// "{2A54BF54-...}"
std::string ClassIdText(REFCLSID class_id);

struct BuiltInFilter {
  const CLSID* class_id;
  const char* class_name;
};

std::span<const BuiltInFilter> BuiltInFilters();

}  // namespace marlinda
