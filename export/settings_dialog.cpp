#include "export/settings_dialog.h"

#include "core/com_call.h"
#include "core/module.h"

namespace marlinda {
namespace {

constexpr INT_PTR kNotShown = -1;

}  // namespace

INT_PTR SettingsDialog::ShowModal(HWND owner) {
  const INT_PTR result = DialogBoxParamW(TheModule().Instance(), MAKEINTRESOURCEW(template_id_),
                                         owner, Procedure, reinterpret_cast<LPARAM>(this));
  window_ = nullptr;
  return result;
}

INT_PTR CALLBACK SettingsDialog::Procedure(HWND window, UINT message, WPARAM wparam,
                                           LPARAM lparam) {
  if (message == WM_INITDIALOG) {
    SetWindowLongPtrW(window, DWLP_USER, lparam);
    reinterpret_cast<SettingsDialog*>(lparam)->Open(window);
    return FALSE;  // the keyboard is where Open put it
  }
  auto* const self = reinterpret_cast<SettingsDialog*>(GetWindowLongPtrW(window, DWLP_USER));
  if (message != WM_COMMAND || self == nullptr) return FALSE;
  self->Command(LOWORD(wparam), HIWORD(wparam));
  return TRUE;
}

void SettingsDialog::Open(HWND window) {
  window_ = window;
  const HRESULT hr = ComCall([&] {
    HWND start = OnOpening();
    SendMessageW(window_, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(start), TRUE);
  });
  if (FAILED(hr)) EndDialog(window_, kNotShown);
}

void SettingsDialog::Command(int item, int notification) {
  if (notification != BN_CLICKED) return;
  switch (item) {
    case IDOK:
      OnOk();
      [[fallthrough]];
    case IDCANCEL:
      EndDialog(window_, item);
      return;
    default:
      OnClick(item);
  }
}

HWND SettingsDialog::Item(int item) const {
  HWND found = GetDlgItem(window_, item);
  if (found == nullptr) throw HResultError(LastErrorResult());
  return found;
}

HWND SettingsDialog::CheckRadio(int first, int last, int item) const {
  if (item == 0) return Item(IDOK);  // a fresh dialog has none checked
  if (CheckRadioButton(window_, first, last, item) == FALSE) throw HResultError(LastErrorResult());
  return Item(item);
}

}  // namespace marlinda
