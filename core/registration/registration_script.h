// The registry script language: what registration writes, as a text that people read and change.
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

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace marlinda {

enum class RegistryHive { kClassesRoot, kCurrentUser, kLocalMachine };

enum class RegistryMark {
  kNone,         // removed on unregistration as soon as nothing foreign is left in it
  kNoRemove,     // stays on unregistration, as does its default value
  kForceRemove,  // emptied before registration, removed with all its content on unregistration
  kDelete,       // removed with all its content on registration
};

struct RegistryScriptValue {
  std::wstring name;  // empty for the default value of the key
  std::variant<std::wstring, std::uint32_t> data;
  bool no_remove = false;
};

struct RegistryScriptKey {
  std::wstring name;
  RegistryMark mark = RegistryMark::kNone;
  std::vector<RegistryScriptValue> values;
  std::vector<RegistryScriptKey> keys;
};

struct RegistryScriptRoot {
  RegistryHive hive = RegistryHive::kClassesRoot;
  std::vector<RegistryScriptKey> keys;
};

using RegistryScript = std::vector<RegistryScriptRoot>;

// Texts that stand for %NAME%, by name.
using RegistryReplacements = std::map<std::wstring, std::wstring, std::less<>>;

class RegistryScriptError : public std::runtime_error {
 public:
  RegistryScriptError(std::size_t line, std::size_t column, const std::string& reason);
  std::size_t line() const noexcept { return line_; }      // from 1
  std::size_t column() const noexcept { return column_; }  // from 1

 private:
  std::size_t line_;
  std::size_t column_;
};

// Keys may lie this deep below their root.
inline constexpr int kMaxRegistryScriptDepth = 32;

// Names and texts stand bare or in single quotes, where '' is one quote; quoted words are never
// keywords. %NAME% is replaced inside names and texts, %% is one percent sign; what a replacement
// brings is never read as script. Values are texts (s) and 32-bit numbers (d, decimal or 0x).
// Keywords are known in any case. Throws RegistryScriptError.
RegistryScript ParseRegistryScript(std::wstring_view text,
                                   const RegistryReplacements& replacements);

}  // namespace marlinda
