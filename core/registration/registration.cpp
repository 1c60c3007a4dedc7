#include "core/registration/registration.h"

#include <marlinda.h>

#include <ranges>
#include <string_view>
#include <vector>

#include "core/com_call.h"
#include "core/handle.h"
#include "core/module.h"
#include "core/resource.h"

namespace marlinda {
namespace {

void CheckRegistry(LSTATUS status) { Check(HRESULT_FROM_WIN32(static_cast<DWORD>(status))); }

// Removing what does not exist succeeds.
void CheckRemoval(LSTATUS status) {
  if (status != ERROR_FILE_NOT_FOUND) CheckRegistry(status);
}

std::vector<RegistryScriptKey> LoadScript(UINT id, const RegistryReplacements& replacements) {
  const HINSTANCE instance = TheModule().Instance();
  const HRSRC resource = FindResourceW(instance, MAKEINTRESOURCEW(id), L"REGISTRY");
  const HGLOBAL loaded = resource == nullptr ? nullptr : LoadResource(instance, resource);
  if (loaded == nullptr) throw HResultError(LastErrorResult());
  return ReadRegistryScript(
      {static_cast<const char*>(LockResource(loaded)), SizeofResource(instance, resource)},
      replacements);
}

RegistryReplacements ClassReplacements(const ClassEntry& entry) {
  RegistryReplacements replacements = ModuleReplacements();
  const std::wstring prog_id = entry.prog_id;
  replacements["FriendlyName"] = std::wstring(entry.name) + L" Object";
  replacements["CLSID"] = ToText(*entry.clsid);
  replacements["PROGID"] = prog_id;
  replacements["VERSIONINDEPENDENTPROGID"] = prog_id.substr(0, prog_id.rfind(L'.'));
  return replacements;
}

}  // namespace

std::wstring ToText(REFGUID guid) {
  wchar_t text[39];
  StringFromGUID2(guid, text, ARRAYSIZE(text));
  return text;
}

RegistryReplacements ModuleReplacements() {
  // The type library's identifier is also that of the application and of the module.
  const std::wstring guid = ToText(LIBID_MarlindaLib);
  return {{"MODULE", TheModule().Path()},
          {"MODULETYPE", L"InprocServer32"},
          {"APPID", guid},
          {"MODULEGUID", guid}};
}

Registration::Registration() {
  wchar_t setting[16] = L"";
  const DWORD length =
      GetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting, ARRAYSIZE(setting));
  // A value too long for the buffer leaves it unspecified.
  const std::wstring_view value =
      length < ARRAYSIZE(setting) ? std::wstring_view(setting, length) : L"?";
  is_per_user_ = value == L"user";
  if (is_per_user_) {
    root_ = HKEY_CURRENT_USER;
  } else if (!value.empty() && value != L"machine") {
    throw HResultError(E_INVALIDARG);
  }
}

void Registration::Register(UINT id, const RegistryReplacements& replacements) const {
  for (const auto& script_key : LoadScript(id, replacements)) {
    RegistryKey key;
    CheckRegistry(RegCreateKeyExW(root_, FullPath(script_key.path).c_str(), 0, nullptr,
                                  REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr, key.Receive(),
                                  nullptr));
    for (const auto& [name, text] : script_key.values) {
      CheckRegistry(RegSetValueExW(key.get(), name.c_str(), 0, REG_SZ,
                                   reinterpret_cast<const BYTE*>(text.c_str()),
                                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
    }
  }
}

void Registration::Unregister(UINT id, const RegistryReplacements& replacements) const {
  for (const auto& script_key : std::views::reverse(LoadScript(id, replacements))) {
    const std::wstring path = FullPath(script_key.path);
    if (!HasKey(script_key.path)) continue;
    for (const auto& [name, text] : script_key.values) {
      CheckRemoval(RegDeleteKeyValueW(root_, path.c_str(), name.c_str()));
    }
    if (script_key.no_remove) continue;
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
  for (const ClassEntry& entry : classes) {
    Register(IDR_CLASS_REGISTRATION, ClassReplacements(entry));
  }
}

void Registration::UnregisterClasses(std::span<const ClassEntry> classes) const {
  for (const ClassEntry& entry : std::views::reverse(classes)) {
    Unregister(IDR_CLASS_REGISTRATION, ClassReplacements(entry));
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
