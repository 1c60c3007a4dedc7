// JSON forms shared by the commands.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/annotations.h"
#include "host/engine.h"

namespace marlinda {

// Keeps the keys in the order in which they are written.
using Json = nlohmann::ordered_json;

// Goes up when a key of some report goes or means something else; new keys leave it as it is.
constexpr int kSchemaVersion = 1;

inline std::string ToText(const Json& report) {
  Json versioned = {{"schema_version", kSchemaVersion}};
  versioned.update(report);
  // Names come from files; a broken character in one must not cost the report.
  return versioned.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

template <class T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

inline Json ToJson(const std::vector<Label>& labels) {
  Json list = Json::array();
  for (const Label& label : labels) {
    list.push_back({{"position", label.position}, {"name", label.name}});
  }
  return list;
}

inline Json ToJson(const std::vector<Marker>& markers) {
  Json list = Json::array();
  for (const Marker& marker : markers) {
    list.push_back({{"begin", marker.begin}, {"end", marker.end}, {"name", marker.name}});
  }
  return list;
}

}  // namespace marlinda
