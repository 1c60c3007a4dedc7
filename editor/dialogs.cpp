#include "editor/dialogs.h"

#include <commdlg.h>

#include <algorithm>
#include <span>
#include <utility>

#include "editor/resource.h"
#include "host/engine.h"
#include "host/filter_list.h"
#include "host/wide_text.h"

namespace marlinda::editor {
namespace {

struct Field {
  int item;
  std::string text;
};

// Shows a dialog from the resources. Fills in its text items, and reads them back after OK.
class TextDialog {
 public:
  TextDialog(std::string title, std::vector<Field> fields)
      : title_(std::move(title)), fields_(std::move(fields)) {}

  // Returns false if cancelled. Throws a HostError if the engine cannot store a text.
  bool Show(HWND owner, int resource) {
    if (DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(resource), owner, Procedure,
                        reinterpret_cast<LPARAM>(this)) != IDOK) {
      return false;
    }
    // The engine stores texts in the system's code page, which lacks some characters.
    for (const Field& field : fields_) {
      if (FitsCodePage(Widen(field.text))) continue;
      throw HostError(ExitStatus::kUsage, field.text,
                      "the system's code page lacks some of these characters",
                      "Choose other characters.");
    }
    return true;
  }
  const std::string& Text(std::size_t field) const { return fields_[field].text; }

 private:
  static INT_PTR CALLBACK Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_INITDIALOG) SetWindowLongPtrW(window, GWLP_USERDATA, lparam);
    auto* const dialog = reinterpret_cast<TextDialog*>(GetWindowLongPtrW(window, GWLP_USERDATA));
    const bool closes =
        message == WM_COMMAND && (LOWORD(wparam) == IDOK || LOWORD(wparam) == IDCANCEL);
    const HRESULT hr = ComCall([&] {
      if (message == WM_INITDIALOG) dialog->Open(window);
      if (closes && LOWORD(wparam) == IDOK) dialog->Read(window);
    });
    if (closes || FAILED(hr)) EndDialog(window, FAILED(hr) ? IDCANCEL : LOWORD(wparam));
    return closes || message == WM_INITDIALOG ? TRUE : FALSE;
  }

  void Open(HWND window) {
    if (!title_.empty()) SetWindowTextW(window, Widen(title_).c_str());
    for (const Field& field : fields_) {
      SetDlgItemTextW(window, field.item, Widen(field.text).c_str());
    }
  }
  void Read(HWND window) {
    for (Field& field : fields_) {
      const HWND item = GetDlgItem(window, field.item);
      std::wstring text(static_cast<std::size_t>(GetWindowTextLengthW(item)) + 1, L'\0');
      GetWindowTextW(item, text.data(), static_cast<int>(text.size()));
      field.text = Narrow(text.c_str());
    }
  }

  std::string title_;
  std::vector<Field> fields_;
};

// Replaces each "|" by a NUL and appends two NULs, as the file dialog requires.
std::wstring WithZeros(std::wstring types) {
  std::ranges::replace(types, L'|', L'\0');
  types.append(2, L'\0');
  return types;
}

std::wstring ImportTypes() {
  std::wstring patterns;
  for (const BuiltInFilter& built_in : BuiltInFilters()) {
    const auto filter = CreateObject<IImportFilter>(*built_in.class_id, built_in.class_name);
    Bstr text;
    Bstr extensions;
    Check(filter->GetFilterStrings(text.Receive(), extensions.Receive()));
    if (!patterns.empty()) patterns += L';';
    patterns += Widen(extensions.utf8());
  }
  // The filter manager's list also holds filters of other modules.
  const auto manager = CreateObject<IFileFilterMgr>(CLSID_CFileFilterMgr, "CFileFilterMgr");
  Bstr listed;
  Check(manager->GetImportFilterString(listed.Receive()));
  return L"Audio and films|" + patterns + L"|" + Widen(listed.utf8());
}

}  // namespace

std::optional<std::string> AskText(HWND owner, const std::string& title, const std::string& prompt,
                                   const std::string& initial) {
  TextDialog dialog(title, {{IDC_PROMPT, prompt}, {IDC_TEXT, initial}});
  if (!dialog.Show(owner, IDD_TEXT)) return std::nullopt;
  return dialog.Text(1);
}

std::optional<Tags> AskTags(HWND owner, const Tags& initial) {
  TextDialog dialog("", {{IDC_TITLE, initial.title},
                         {IDC_ARTIST, initial.artist},
                         {IDC_ALBUM, initial.album},
                         {IDC_YEAR, initial.year},
                         {IDC_GENRE, initial.genre}});
  if (!dialog.Show(owner, IDD_TAGS)) return std::nullopt;
  return Tags{dialog.Text(0), dialog.Text(1), dialog.Text(2), dialog.Text(3), dialog.Text(4)};
}

std::vector<std::string> AskFilesToOpen(HWND owner, const std::string& title) {
  const std::wstring types = WithZeros(ImportTypes());
  const std::wstring caption = Widen(title);
  std::wstring names(32768, L'\0');
  OPENFILENAMEW dialog = {};
  dialog.lStructSize = sizeof dialog;
  dialog.hwndOwner = owner;
  dialog.lpstrFilter = types.c_str();
  dialog.lpstrTitle = caption.c_str();
  dialog.lpstrFile = names.data();
  dialog.nMaxFile = static_cast<DWORD>(names.size());
  dialog.Flags =
      OFN_EXPLORER | OFN_FILEMUSTEXIST | OFN_HIDEREADONLY | OFN_NOCHANGEDIR | OFN_ALLOWMULTISELECT;
  if (GetOpenFileNameW(&dialog) == 0) return {};
  // The dialog returns one path, or a folder followed by file names.
  std::vector<std::string> parts;
  for (const wchar_t* part = names.c_str(); *part != L'\0'; part += wcslen(part) + 1) {
    parts.push_back(Narrow(part));
  }
  if (parts.size() < 2) return parts;
  std::vector<std::string> files;
  for (const std::string& name : std::span(parts).subspan(1))
    files.push_back(parts[0] + "\\" + name);
  return files;
}

std::optional<std::string> AskFileToWrite(HWND owner, const std::string& suggested,
                                          const std::wstring& types) {
  const std::wstring filter = WithZeros(types);
  std::wstring name = Widen(suggested);
  name.resize(32768);
  OPENFILENAMEW dialog = {};
  dialog.lStructSize = sizeof dialog;
  dialog.hwndOwner = owner;
  dialog.lpstrFilter = filter.c_str();
  dialog.lpstrTitle = L"Export";
  dialog.lpstrDefExt = L"wav";
  dialog.lpstrFile = name.data();
  dialog.nMaxFile = static_cast<DWORD>(name.size());
  dialog.Flags =
      OFN_EXPLORER | OFN_OVERWRITEPROMPT | OFN_HIDEREADONLY | OFN_NOCHANGEDIR | OFN_PATHMUSTEXIST;
  if (GetSaveFileNameW(&dialog) == 0) return std::nullopt;
  return Narrow(name.c_str());
}

HostError CurrentFailure() {
  try {
    throw;
  } catch (const HostError& error) {
    return error;
  } catch (const HResultError& error) {
    return Explain(error.code(), "", ExitStatus::kFailure);
  } catch (const std::exception&) {
    return Explain(E_OUTOFMEMORY, "", ExitStatus::kFailure);
  }
}

void ShowFailure(HWND owner, const std::string& what, const HostError& error) {
  std::string text = what + ".\n\n" + error.subject() + (error.subject().empty() ? "" : ": ") +
                     error.reason() + ".";
  // The remedy of a registration error names the files of marlinda.exe, so it is replaced.
  const std::string remedy =
      error.status() == ExitStatus::kRegistration
          ? "Keep Tessaly.dll, Converter.dll and marlinda-editor.exe.manifest beside "
            "marlinda-editor.exe, or register the engine with \"regsvr32 Tessaly.dll\"."
          : error.remedy();
  if (!remedy.empty()) text += "\n\n" + remedy;
  MessageBoxW(owner, Widen(text).c_str(), L"Marlinda Editor", MB_OK | MB_ICONWARNING);
}

}  // namespace marlinda::editor
