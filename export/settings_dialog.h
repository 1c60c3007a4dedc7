// SettingsDialog: the base of the modal dialogs in which a user chooses how an export is encoded.
#pragma once

#include <windows.h>

namespace marlinda {

// A dialog edits values of its own object, and its results are worth taking only after IDOK.
class SettingsDialog {
 public:
  SettingsDialog(const SettingsDialog&) = delete;
  SettingsDialog& operator=(const SettingsDialog&) = delete;

  // Shows the dialog, modal to `owner`, which may be null, and returns IDOK or IDCANCEL, the latter
  // also when the window was closed. Any other result means that there was no dialog: no such
  // owner, or its controls could not be set up.
  INT_PTR ShowModal(HWND owner);

 protected:
  explicit SettingsDialog(int template_id) noexcept : template_id_(template_id) {}
  ~SettingsDialog() = default;

  // Sets up the controls and returns the one that the keyboard starts at. May throw.
  virtual HWND OnOpening() = 0;
  // A click on an item, also one by keyboard.
  virtual void OnClick(int /*item*/) {}
  // OK was pressed; the dialog ends after this.
  virtual void OnOk() {}

  // The window of an item. Throws where the template has none.
  HWND Item(int item) const;

  // Checks `item`, one of the radio buttons `first` to `last`, and no other of them; leaves all
  // unchecked when `item` is 0. Returns where the keyboard should start: at the checked button, and
  // otherwise at OK, because a radio button that gets the keyboard counts as clicked.
  HWND CheckRadio(int first, int last, int item) const;

 private:
  static INT_PTR CALLBACK Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
  void Open(HWND window);
  void Command(int item, int notification);

  const int template_id_;
  HWND window_ = nullptr;
};

// The window whose handle came as the number that interfaces carry. A handle has 32 significant
// bits on every Windows.
inline HWND WindowOfNumber(ULONG number) noexcept {
  return static_cast<HWND>(LongToHandle(static_cast<LONG>(number)));
}

}  // namespace marlinda
