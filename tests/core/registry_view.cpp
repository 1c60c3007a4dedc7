#include "tests/core/registry_view.h"

#include <algorithm>
#include <cwctype>
#include <initializer_list>
#include <vector>

#include "core/handle.h"

namespace marlinda::testing {
namespace {

std::wstring DataAsText(DWORD type, const std::vector<BYTE>& data) {
  std::wstring text = std::to_wstring(type) + L":";
  if (type == REG_SZ && data.size() >= sizeof(wchar_t)) {
    return text.append(reinterpret_cast<const wchar_t*>(data.data()),
                       data.size() / sizeof(wchar_t) - 1);
  }
  for (const BYTE byte : data) text += L" " + std::to_wstring(byte);
  return text;
}

void Collect(HKEY key, const std::wstring& path, RegistryView& view) {
  std::wstring name(1024, L'\0');
  for (DWORD index = 0;; ++index) {
    auto length = static_cast<DWORD>(name.size());
    DWORD type = REG_NONE;
    DWORD size = 0;
    if (RegEnumValueW(key, index, name.data(), &length, nullptr, &type, nullptr, &size) !=
        ERROR_SUCCESS) {
      break;
    }
    std::vector<BYTE> data(size);
    RegQueryValueExW(key, name.c_str(), nullptr, &type, data.data(), &size);
    view[path + (length == 0 ? L"@" : name.substr(0, length))] = DataAsText(type, data);
  }
  for (DWORD index = 0;; ++index) {
    auto length = static_cast<DWORD>(name.size());
    if (RegEnumKeyExW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      break;
    }
    const std::wstring below = path + name.substr(0, length) + L"\\";
    view[below];
    RegistryKey child;
    if (RegOpenKeyExW(key, name.c_str(), 0, KEY_READ, child.Receive()) == ERROR_SUCCESS) {
      Collect(child.get(), below, view);
    }
  }
}

bool BeginsWithAny(const std::wstring& path, std::initializer_list<const wchar_t*> prefixes) {
  return std::ranges::any_of(prefixes, [&](std::wstring_view prefix) {
    return path.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), path.begin(),
                      [](wchar_t a, wchar_t b) { return std::towlower(a) == std::towlower(b); });
  });
}

}  // namespace

RegistryView ViewRegistry(HKEY root, const std::wstring& path) {
  RegistryView view;
  RegistryKey key;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.Receive()) == ERROR_SUCCESS) {
    Collect(key.get(), L"", view);
  }
  return view;
}

RegistryView Added(const RegistryView& before, const RegistryView& after) {
  RegistryView added;
  std::ranges::set_difference(after, before, std::inserter(added, added.end()));
  return added;
}

RegistryView NotBelow(const RegistryView& view, std::initializer_list<const wchar_t*> prefixes) {
  RegistryView left = view;
  std::erase_if(left, [&](const auto& entry) { return BeginsWithAny(entry.first, prefixes); });
  return left;
}

std::string ToLines(const RegistryView& view) {
  std::string lines;
  for (const auto& [path, data] : view) {
    for (const wchar_t c : path + L" = " + data) {
      lines += c < 128 ? static_cast<char>(c) : '?';
    }
    lines += '\n';
  }
  return lines;
}

void WriteText(HKEY root, const std::wstring& path, const wchar_t* name, const wchar_t* text) {
  RegSetKeyValueW(root, path.c_str(), name, REG_SZ, text,
                  static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t)));
}

}  // namespace marlinda::testing
