#include "core/registration/registry_transaction.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "core/com_call.h"
#include "core/handle.h"

namespace marlinda {
namespace {

struct SavedValue {
  std::wstring name;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

struct SavedKey {
  std::wstring name;
  std::vector<SavedValue> values;
  std::vector<SavedKey> keys;
};

void CheckRegistry(LSTATUS status) { Check(HRESULT_FROM_WIN32(static_cast<DWORD>(status))); }

// Null when there is no such key.
RegistryKey TryOpen(const RegistryPlace& place, REGSAM access) {
  RegistryKey key;
  const LSTATUS status = RegOpenKeyExW(place.root, place.path.c_str(), 0, access, key.Receive());
  if (status == ERROR_FILE_NOT_FOUND) return {};
  CheckRegistry(status);
  return key;
}

// Nothing when there is no such value.
std::optional<SavedValue> ReadValue(HKEY key, const std::wstring& name) {
  SavedValue value{name, REG_NONE, {}};
  for (;;) {
    auto size = static_cast<DWORD>(value.data.size());
    const LSTATUS status = RegQueryValueExW(key, name.c_str(), nullptr, &value.type,
                                            size == 0 ? nullptr : value.data.data(), &size);
    if (status == ERROR_FILE_NOT_FOUND) return std::nullopt;
    // Without a buffer the answer is the size alone, and success.
    const bool complete = status == ERROR_SUCCESS && size <= value.data.size();
    if (status != ERROR_MORE_DATA) CheckRegistry(status);
    value.data.resize(size);
    if (complete) return value;
  }
}

struct Contents {
  std::vector<std::wstring> values;
  std::vector<std::wstring> keys;
};

Contents List(HKEY key) {
  DWORD longest_key = 0;
  DWORD longest_value = 0;
  CheckRegistry(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, &longest_key, nullptr,
                                 nullptr, &longest_value, nullptr, nullptr, nullptr));
  std::wstring buffer(std::max(longest_key, longest_value) + 1, L'\0');
  Contents contents;
  for (DWORD index = 0;; ++index) {
    auto length = static_cast<DWORD>(buffer.size());
    const LSTATUS status =
        RegEnumValueW(key, index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_NO_MORE_ITEMS) break;
    CheckRegistry(status);
    contents.values.emplace_back(buffer, 0, length);
  }
  for (DWORD index = 0;; ++index) {
    auto length = static_cast<DWORD>(buffer.size());
    const LSTATUS status =
        RegEnumKeyExW(key, index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_NO_MORE_ITEMS) break;
    CheckRegistry(status);
    contents.keys.emplace_back(buffer, 0, length);
  }
  return contents;
}

std::optional<SavedKey> Save(const RegistryPlace& place) {
  const RegistryKey key = TryOpen(place, KEY_READ);
  if (!key) return std::nullopt;
  SavedKey saved;
  const Contents contents = List(key.get());
  for (const std::wstring& name : contents.values) {
    if (auto value = ReadValue(key.get(), name)) saved.values.push_back(std::move(*value));
  }
  for (const std::wstring& name : contents.keys) {
    if (auto child = Save(place / name)) {
      child->name = name;
      saved.keys.push_back(std::move(*child));
    }
  }
  return saved;
}

bool IsSaved(const auto& saved, const std::wstring& name) {
  return std::ranges::any_of(saved, [&](const auto& item) { return item.name == name; });
}

// The functions from here on run while a failure is on its way out: what the registry refuses now
// is dropped, and the rest is still taken back.

void WriteBack(const RegistryPlace& place, const SavedValue& value) {
  RegSetKeyValueW(place.root, place.path.c_str(), value.name.c_str(), value.type, value.data.data(),
                  static_cast<DWORD>(value.data.size()));
}

// Changes only what differs, so that a key that never went keeps its other attributes.
void RestoreTree(const RegistryPlace& place, const SavedKey& saved) {
  RegistryKey key;
  RegCreateKeyExW(place.root, place.path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                  KEY_READ | KEY_WRITE, nullptr, key.Receive(), nullptr);
  if (!key) return;
  const Contents now = List(key.get());
  for (const std::wstring& name : now.values) {
    if (!IsSaved(saved.values, name)) RegDeleteValueW(key.get(), name.c_str());
  }
  for (const std::wstring& name : now.keys) {
    if (!IsSaved(saved.keys, name)) RegDeleteTreeW(key.get(), name.c_str());
  }
  for (const SavedValue& value : saved.values) WriteBack(place, value);
  for (const SavedKey& child : saved.keys) RestoreTree(place / child.name, child);
}

}  // namespace

bool KeyExists(const RegistryPlace& key) {
  return static_cast<bool>(TryOpen(key, KEY_QUERY_VALUE));
}

RegistryTransaction::~RegistryTransaction() {
  while (!undo_.empty()) {
    ComCall([&] {
      undo_.back()();
      return S_OK;
    });
    undo_.pop_back();
  }
}

void RegistryTransaction::CreateKey(const RegistryPlace& key) {
  for (std::size_t end = 0; end != std::wstring::npos;) {
    end = key.path.find(L'\\', end == 0 ? 0 : end + 1);
    const RegistryPlace step{key.root, key.path.substr(0, end)};
    if (KeyExists(step)) continue;
    undo_.emplace_back([step] { RegDeleteKeyW(step.root, step.path.c_str()); });
    RegistryKey created;
    CheckRegistry(RegCreateKeyExW(step.root, step.path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                  KEY_READ | KEY_WRITE, nullptr, created.Receive(), nullptr));
  }
}

void RegistryTransaction::SetValue(const RegistryPlace& key, const std::wstring& name, DWORD type,
                                   std::span<const BYTE> data) {
  const RegistryKey open = TryOpen(key, KEY_QUERY_VALUE | KEY_SET_VALUE);
  if (!open) throw HResultError(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
  if (const auto old = ReadValue(open.get(), name)) {
    undo_.emplace_back([key, old = *old] { WriteBack(key, old); });
  } else {
    undo_.emplace_back(
        [key, name] { RegDeleteKeyValueW(key.root, key.path.c_str(), name.c_str()); });
  }
  CheckRegistry(RegSetValueExW(open.get(), name.c_str(), 0, type, data.data(),
                               static_cast<DWORD>(data.size())));
}

void RegistryTransaction::RemoveValue(const RegistryPlace& key, const std::wstring& name) {
  const RegistryKey readable = TryOpen(key, KEY_QUERY_VALUE);
  if (!readable) return;
  const auto old = ReadValue(readable.get(), name);
  if (!old) return;
  undo_.emplace_back([key, old = *old] { WriteBack(key, old); });
  CheckRegistry(RegDeleteKeyValueW(key.root, key.path.c_str(), name.c_str()));
}

void RegistryTransaction::RemoveKeyIfEmpty(const RegistryPlace& key) {
  const RegistryKey readable = TryOpen(key, KEY_READ);
  if (!readable) return;
  const Contents contents = List(readable.get());
  if (!contents.values.empty() || !contents.keys.empty()) return;
  Protect(key);
  CheckRegistry(RegDeleteKeyW(key.root, key.path.c_str()));
}

void RegistryTransaction::RemoveTree(const RegistryPlace& key) {
  if (!KeyExists(key)) return;
  Protect(key);
  CheckRegistry(RegDeleteTreeW(key.root, key.path.c_str()));
}

void RegistryTransaction::Protect(const RegistryPlace& key) {
  undo_.emplace_back([key, saved = Save(key)] {
    if (saved) {
      RestoreTree(key, *saved);
    } else {
      RegDeleteTreeW(key.root, key.path.c_str());
    }
  });
}

}  // namespace marlinda
