#include "host/filter_list.h"

#include <marlinda.h>

#include <algorithm>

#include "core/com_call.h"
#include "core/handle.h"
#include "host/messages.h"
#include "host/wide_text.h"

namespace marlinda {

const char* const kFilterListKey = R"(HKEY_LOCAL_MACHINE\Software\Brevant\Cutloom\Import Filters)";

namespace {

constexpr wchar_t kSubkey[] = LR"(Software\Brevant\Cutloom\Import Filters)";

void RequireSuccess(LSTATUS error) {
  if (error == ERROR_SUCCESS) return;
  if (error == ERROR_ACCESS_DENIED) {
    throw HostError(ExitStatus::kRegistration, kFilterListKey, "access is denied",
                    "Run the command as an administrator.");
  }
  throw Explain(HRESULT_FROM_WIN32(static_cast<DWORD>(error)), kFilterListKey,
                ExitStatus::kRegistration);
}

}  // namespace

FilterList ReadFilterList() {
  FilterList list;
  RegistryKey key;
  const LSTATUS opened =
      RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSubkey, 0, KEY_QUERY_VALUE, key.Receive());
  if (opened == ERROR_FILE_NOT_FOUND) return list;
  RequireSuccess(opened);
  for (DWORD index = 0;; ++index) {
    // The filter manager stops at a value that is too long for its buffers. Buffers of the same
    // size make this list end there, too. The last byte is never filled, so that a value without a
    // terminator also ends with a 0.
    char name[101] = {};
    char data[101] = {};
    DWORD name_size = 100;
    DWORD data_size = 100;
    DWORD type = 0;
    const LSTATUS found = RegEnumValueA(key.get(), index, name, &name_size, nullptr, &type,
                                        reinterpret_cast<BYTE*>(data), &data_size);
    if (found != ERROR_SUCCESS) {
      list.cut_short = found != ERROR_NO_MORE_ITEMS;
      return list;
    }
    if (type == REG_SZ) list.entries.push_back({FromAnsi(name), FromAnsi(data)});
  }
}

void WriteListedFilter(const std::string& value_name, REFCLSID class_id) {
  RegistryKey key;
  RequireSuccess(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSubkey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                 KEY_SET_VALUE, nullptr, key.Receive(), nullptr));
  const std::wstring text = Widen(ClassIdText(class_id));
  RequireSuccess(RegSetValueExW(key.get(), Widen(value_name).c_str(), 0, REG_SZ,
                                reinterpret_cast<const BYTE*>(text.c_str()),
                                static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
}

void RemoveListedFilter(const std::string& value_name) {
  RegistryKey key;
  RequireSuccess(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSubkey, 0, KEY_SET_VALUE, key.Receive()));
  const LSTATUS removed = RegDeleteValueW(key.get(), Widen(value_name).c_str());
  if (removed != ERROR_FILE_NOT_FOUND) RequireSuccess(removed);
}

bool ListedFilter::Names(REFCLSID id) const {
  CLSID listed;
  return SUCCEEDED(CLSIDFromString(Widen(class_id).c_str(), &listed)) && IsEqualCLSID(listed, id);
}

bool FilterList::Holds(REFCLSID class_id) const {
  return std::ranges::any_of(entries, [&](const auto& entry) { return entry.Names(class_id); });
}

std::string ClassIdText(REFCLSID class_id) {
  wchar_t text[40] = {};
  StringFromGUID2(class_id, text, static_cast<int>(std::size(text)));
  return Narrow(text);
}

std::span<const BuiltInFilter> BuiltInFilters() {
  static const BuiltInFilter filters[] = {
      {&CLSID_CDShowImport, "CDShowImport"},
      {&CLSID_COggImport, "COggImport"},
  };
  return filters;
}

}  // namespace marlinda
