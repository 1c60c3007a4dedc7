// The filter manager's list of import filters in the registry, and the engine's built-in filters.
#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <vector>

namespace marlinda {

// The key of the list, as a registry editor shows it.
extern const char* const kFilterListKey;

struct ListedFilter {
  bool Names(REFCLSID id) const;

  std::string value_name;
  std::string class_id;  // unchecked text from the registry
};

struct FilterList {
  bool Holds(REFCLSID class_id) const;

  std::vector<ListedFilter> entries;  // in the order in which the manager tries them
  // A value too long for the manager ends the list. Later values are not in `entries`.
  bool cut_short = false;
};

// Returns an empty list if the key is missing. Throws a HostError if the key cannot be read.
FilterList ReadFilterList();

// Write or remove one value of the list, or throw a HostError. Removing a missing value succeeds.
void WriteListedFilter(const std::string& value_name, REFCLSID class_id);
void RemoveListedFilter(const std::string& value_name);

// Returns text such as "{2A54BF54-...}".
std::string ClassIdText(REFCLSID class_id);

struct BuiltInFilter {
  const CLSID* class_id;
  const char* class_name;
};

std::span<const BuiltInFilter> BuiltInFilters();

}  // namespace marlinda
