#include "core/registration.h"

#include <marlinda.h>

#include <algorithm>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

#include "core/com_call.h"
#include "core/handle.h"
#include "core/module.h"
#include "core/resource.h"

namespace marlinda {
namespace {

// Maps NAME to the text that replaces %NAME%.
using Replacements = std::map<std::wstring, std::wstring>;

// A line of a registry script.
struct Entry {
  std::wstring key;                  // below HKEY_CLASSES_ROOT
  std::wstring name;                 // name of the value; empty for the default value
  std::optional<std::wstring> text;  // absent if the line has only a key
};

void CheckRegistry(LSTATUS status) { Check(HRESULT_FROM_WIN32(static_cast<DWORD>(status))); }

// Removing a missing key or value succeeds.
void CheckRemoval(LSTATUS status) {
  if (status != ERROR_FILE_NOT_FOUND) CheckRegistry(status);
}

std::wstring Replace(std::wstring text, const Replacements& replacements) {
  for (std::size_t begin = 0; (begin = text.find(L'%', begin)) != std::wstring::npos;) {
    const std::size_t end = text.find(L'%', begin + 1);
    const std::wstring& with = replacements.at(text.substr(begin + 1, end - begin - 1));
    text.replace(begin, end - begin + 1, with);
    begin += with.size();
  }
  return text;
}

// Returns the entries of a script. Splits each line before it replaces the %NAME%s, because a
// replacement may contain " = " or " @".
std::vector<Entry> ReadScript(UINT id, const Replacements& replacements) {
  const HINSTANCE instance = TheModule().Instance();
  const HRSRC resource = FindResourceW(instance, MAKEINTRESOURCEW(id), L"REGISTRY");
  const HGLOBAL loaded = resource == nullptr ? nullptr : LoadResource(instance, resource);
  if (loaded == nullptr) throw HResultError(LastErrorResult());
  const auto* const begin = static_cast<const char*>(LockResource(loaded));
  std::wistringstream script(std::wstring(begin, begin + SizeofResource(instance, resource)));
  std::vector<Entry> entries;
  for (std::wstring line; std::getline(script >> std::ws, line);) {
    std::erase(line, L'\r');
    Entry& entry = entries.emplace_back();
    if (const std::size_t equals = line.find(L" = "); equals != std::wstring::npos) {
      entry.text = Replace(line.substr(equals + 3), replacements);
      line.resize(equals);
    }
    if (const std::size_t at = line.find(L" @"); at != std::wstring::npos) {
      entry.name = line.substr(at + 2);
      line.resize(at);
    }
    entry.key = Replace(line, replacements);
  }
  return entries;
}

// `entry` is null for a script that registers no class.
Replacements ReplacementsFor(const ClassEntry* entry) {
  // The type library's identifier also identifies the application and the module.
  const std::wstring guid = ToText(LIBID_MarlindaLib);
  Replacements replacements = {{L"MODULE", TheModule().Path()},
                               {L"MODULETYPE", L"InprocServer32"},
                               {L"APPID", guid},
                               {L"MODULEGUID", guid}};
  if (entry == nullptr) return replacements;
  const std::wstring prog_id = L"Marlinda." + std::wstring(entry->name).substr(1);
  replacements[L"FriendlyName"] = std::wstring(entry->name) + L" Object";
  replacements[L"CLSID"] = ToText(*entry->clsid);
  replacements[L"PROGID"] = prog_id + L".1";
  replacements[L"VERSIONINDEPENDENTPROGID"] = prog_id;
  return replacements;
}

}  // namespace

std::wstring ToText(REFGUID guid) {
  wchar_t text[39];
  StringFromGUID2(guid, text, ARRAYSIZE(text));
  return text;
}

Registration::Registration() {
  wchar_t setting[16] = L"";
  const DWORD length =
      GetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting, ARRAYSIZE(setting));
  // A value that does not fit leaves the buffer undefined. No value of that length is valid.
  const std::wstring_view value =
      length < ARRAYSIZE(setting) ? std::wstring_view(setting, length) : L"?";
  is_per_user_ = value == L"user";
  if (is_per_user_) {
    root_ = HKEY_CURRENT_USER;
  } else if (!value.empty() && value != L"machine") {
    throw HResultError(E_INVALIDARG);
  }
}

void Registration::Register(UINT id, const ClassEntry* of) const {
  for (const auto& [path, name, text] : ReadScript(id, ReplacementsFor(of))) {
    RegistryKey key;
    CheckRegistry(RegCreateKeyExW(root_, FullPath(path).c_str(), 0, nullptr,
                                  REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr, key.Receive(),
                                  nullptr));
    if (!text) continue;
    CheckRegistry(RegSetValueExW(key.get(), name.c_str(), 0, REG_SZ,
                                 reinterpret_cast<const BYTE*>(text->c_str()),
                                 static_cast<DWORD>((text->size() + 1) * sizeof(wchar_t))));
  }
}

void Registration::Unregister(UINT id, const ClassEntry* of) const {
  std::vector<Entry> entries = ReadScript(id, ReplacementsFor(of));
  std::ranges::reverse(entries);
  for (const Entry& entry : entries) {
    const std::wstring path = FullPath(entry.key);
    if (!HasKey(entry.key)) continue;
    if (entry.text) CheckRemoval(RegDeleteKeyValueW(root_, path.c_str(), entry.name.c_str()));
    if (!entry.name.empty()) continue;
    RegistryKey key;
    DWORD key_count = 0;
    DWORD value_count = 0;
    CheckRegistry(RegOpenKeyExW(root_, path.c_str(), 0, KEY_READ, key.Receive()));
    CheckRegistry(RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &key_count, nullptr,
                                   nullptr, &value_count, nullptr, nullptr, nullptr, nullptr));
    if (key_count == 0 && value_count == 0) CheckRemoval(RegDeleteKeyW(root_, path.c_str()));
  }
}

void Registration::RegisterClasses(std::span<const ClassEntry> classes) const {
  for (const ClassEntry& entry : classes) Register(IDR_CLASS_REGISTRATION, &entry);
}

void Registration::UnregisterClasses(std::span<const ClassEntry> classes) const {
  for (auto entry = classes.rbegin(); entry != classes.rend(); ++entry) {
    Unregister(IDR_CLASS_REGISTRATION, &*entry);
  }
}

bool Registration::HasKey(const std::wstring& path) const {
  RegistryKey key;
  return RegOpenKeyExW(root_, FullPath(path).c_str(), 0, KEY_QUERY_VALUE, key.Receive()) ==
         ERROR_SUCCESS;
}

std::wstring Registration::FullPath(const std::wstring& path) const {
  return is_per_user_ ? L"Software\\Classes\\" + path : path;
}

}  // namespace marlinda
