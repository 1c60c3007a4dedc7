// What lies in the registry, as something that tests can compare and print.
#pragma once

#include <windows.h>

#include <initializer_list>
#include <map>
#include <string>

namespace marlinda::testing {

// Every key below a place as "path\" and every value as "path\name" (the default value's name is
// "@"), with the value's type and data as text.
using RegistryView = std::map<std::wstring, std::wstring>;

RegistryView ViewRegistry(HKEY root, const std::wstring& path);

// The entries of `after` that `before` has not or has otherwise.
RegistryView Added(const RegistryView& before, const RegistryView& after);

// The entries of `view` whose path begins with none of `prefixes`.
RegistryView NotBelow(const RegistryView& view, std::initializer_list<const wchar_t*> prefixes);

// One entry a line, so that two views compare with a readable difference.
std::string ToLines(const RegistryView& view);

void WriteText(HKEY root, const std::wstring& path, const wchar_t* name, const wchar_t* text);

}  // namespace marlinda::testing
