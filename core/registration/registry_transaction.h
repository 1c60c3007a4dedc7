// Changes to the registry that either all happen or leave no trace.
#pragma once

#include <windows.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace marlinda {

// A key: the path below an open or predefined one; the empty path is that key itself.
struct RegistryPlace {
  HKEY root = nullptr;
  std::wstring path;

  RegistryPlace operator/(const std::wstring& name) const {
    return {root, path.empty() ? name : path + L'\\' + name};
  }
};

bool KeyExists(const RegistryPlace& key);

// Every method writes at once and throws HResultError when the registry refuses. Unless Commit was
// called, the destructor takes all of it back, newest change first: keys and values that were
// created go, values that were overwritten and trees that were removed come back. What others put
// into a created key in the meantime keeps that key.
class RegistryTransaction {
 public:
  RegistryTransaction() = default;
  RegistryTransaction(const RegistryTransaction&) = delete;
  RegistryTransaction& operator=(const RegistryTransaction&) = delete;
  ~RegistryTransaction();

  // Creates the key and what is missing above it.
  void CreateKey(const RegistryPlace& key);
  // The key must exist. The empty name is the default value.
  void SetValue(const RegistryPlace& key, const std::wstring& name, DWORD type,
                std::span<const BYTE> data);

  // Removing what is not there succeeds.
  void RemoveValue(const RegistryPlace& key, const std::wstring& name);
  void RemoveKeyIfEmpty(const RegistryPlace& key);
  void RemoveTree(const RegistryPlace& key);

  // Has the key and all below it come back as it is now, whoever changes it from here on.
  void Protect(const RegistryPlace& key);

  void Commit() noexcept { undo_.clear(); }

 private:
  // Recorded before the change that it takes back, so that a change that was made halfway, or not
  // at all, is taken back as well.
  std::vector<std::function<void()>> undo_;
};

}  // namespace marlinda
