#include "core/registration/registration_run.h"

#include <algorithm>
#include <ranges>
#include <string>
#include <string_view>

#include "core/com_call.h"
#include "core/module.h"

namespace marlinda {
namespace {

RegistryPlace Root(RegistryHive hive, RegistrationScope scope) {
  switch (hive) {
    case RegistryHive::kCurrentUser:
      return {HKEY_CURRENT_USER, {}};
    case RegistryHive::kLocalMachine:
      return {HKEY_LOCAL_MACHINE, {}};
    case RegistryHive::kClassesRoot:
      break;
  }
  return ClassesRoot(scope);
}

void WriteValue(const RegistryPlace& key, const RegistryScriptValue& value,
                RegistryTransaction& registry) {
  if (const auto* number = std::get_if<std::uint32_t>(&value.data)) {
    registry.SetValue(key, value.name, REG_DWORD,
                      {reinterpret_cast<const BYTE*>(number), sizeof *number});
  } else {
    const auto& text = std::get<std::wstring>(value.data);
    registry.SetValue(
        key, value.name, REG_SZ,
        {reinterpret_cast<const BYTE*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t)});
  }
}

void Register(const RegistryPlace& place, const RegistryScriptKey& key,
              RegistryTransaction& registry) {
  if (key.mark == RegistryMark::kDelete || key.mark == RegistryMark::kForceRemove) {
    registry.RemoveTree(place);
  }
  if (key.mark == RegistryMark::kDelete) return;
  registry.CreateKey(place);
  for (const auto& value : key.values) WriteValue(place, value, registry);
  for (const auto& child : key.keys) Register(place / child.name, child, registry);
}

void Unregister(const RegistryPlace& place, const RegistryScriptKey& key,
                RegistryTransaction& registry) {
  switch (key.mark) {
    case RegistryMark::kDelete:
      return;
    case RegistryMark::kForceRemove:
      registry.RemoveTree(place);
      return;
    case RegistryMark::kNone:
    case RegistryMark::kNoRemove:
      break;
  }
  std::for_each(key.keys.rbegin(), key.keys.rend(),
                [&](const auto& child) { Unregister(place / child.name, child, registry); });
  const bool stays = key.mark == RegistryMark::kNoRemove;
  std::for_each(key.values.rbegin(), key.values.rend(), [&](const auto& value) {
    const bool value_stays = value.no_remove || (stays && value.name.empty());
    if (!value_stays) registry.RemoveValue(place, value.name);
  });
  if (!stays) registry.RemoveKeyIfEmpty(place);
}

// A script of the module's resources, which are UTF-8.
std::wstring LoadScript(UINT id) {
  const HINSTANCE instance = TheModule().Instance();
  const HRSRC resource = FindResourceW(instance, MAKEINTRESOURCEW(id), L"REGISTRY");
  const HGLOBAL loaded = resource == nullptr ? nullptr : LoadResource(instance, resource);
  if (loaded == nullptr) throw HResultError(LastErrorResult());
  const auto* bytes = static_cast<const char*>(LockResource(loaded));
  const int size = static_cast<int>(SizeofResource(instance, resource));
  const int length = MultiByteToWideChar(CP_UTF8, 0, bytes, size, nullptr, 0);
  std::wstring text(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, bytes, size, text.data(), length);
  return text;
}

}  // namespace

RegistrationScope ChosenScope() {
  wchar_t setting[16] = L"";
  const DWORD length =
      GetEnvironmentVariableW(L"TESSALY_REGISTRATION", setting, ARRAYSIZE(setting));
  // A value too long for the buffer leaves it unspecified.
  const std::wstring_view value =
      length < ARRAYSIZE(setting) ? std::wstring_view(setting, length) : L"?";
  if (value.empty() || value == L"machine") return RegistrationScope::kMachine;
  if (value == L"user") return RegistrationScope::kUser;
  throw HResultError(E_INVALIDARG);
}

RegistryScript LoadRegistryScript(UINT id, const RegistryReplacements& replacements) {
  try {
    return ParseRegistryScript(LoadScript(id), replacements);
  } catch (const RegistryScriptError& error) {
    OutputDebugStringA(
        ("Tessaly: registry script " + std::to_string(id) + ": " + error.what() + "\n").c_str());
    throw HResultError(HRESULT_FROM_WIN32(ERROR_INVALID_DATA));
  }
}

RegistryPlace ClassesRoot(RegistrationScope scope) {
  if (scope == RegistrationScope::kUser) return {HKEY_CURRENT_USER, L"Software\\Classes"};
  return {HKEY_CLASSES_ROOT, {}};
}

void RunRegistration(const RegistryScript& script, RegistrationScope scope,
                     RegistryTransaction& registry) {
  for (const auto& root : script) {
    const RegistryPlace place = Root(root.hive, scope);
    for (const auto& key : root.keys) Register(place / key.name, key, registry);
  }
}

void RunUnregistration(const RegistryScript& script, RegistrationScope scope,
                       RegistryTransaction& registry) {
  std::for_each(script.rbegin(), script.rend(), [&](const auto& root) {
    const RegistryPlace place = Root(root.hive, scope);
    std::for_each(root.keys.rbegin(), root.keys.rend(),
                  [&](const auto& key) { Unregister(place / key.name, key, registry); });
  });
}

}  // namespace marlinda
