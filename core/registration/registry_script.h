// Reads registry scripts: the keys and values that registration writes, as text.
//
//   HKCR
//   {
//       NoRemove AppID
//       {
//           '%APPID%' = s 'Tessaly'
//           'Tessaly.EXE' { val AppID = s '%APPID%' }
//       }
//   }
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace marlinda {

struct RegistryScriptKey {
  std::wstring path;  // below HKEY_CLASSES_ROOT
  bool no_remove = false;
  // Names and texts; the default value has no name.
  std::vector<std::pair<std::wstring, std::wstring>> values;
};

// The text that replaces %NAME%, by name.
using RegistryReplacements = std::map<std::string, std::wstring, std::less<>>;

// The keys in the order of the script, each before the keys below it. Scripts are ASCII. Words that
// contain a blank, a brace or '=' stand in single quotes. Replacements are made after a word is
// read, so no replacement can change the structure. Throws std::invalid_argument for anything that
// is no script and for an unknown replacement.
std::vector<RegistryScriptKey> ReadRegistryScript(std::string_view text,
                                                  const RegistryReplacements& replacements);

}  // namespace marlinda
