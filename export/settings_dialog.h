// The modal dialogs in which a user chooses how an export is encoded.
#pragma once

#include <windows.h>

#include <span>

struct IBaseFilter;

namespace marlinda {

// A dialog edits values of its own object, and its results are worth taking only after IDOK.
class SettingsDialog {
 public:
  // Shows the dialog, modal to `owner`, which may be null, and returns IDOK or IDCANCEL, the latter
  // also when the window was closed. Any other result means that there was no dialog: no such
  // owner, or its controls could not be set up.
  INT_PTR ShowModal(HWND owner);

 protected:
  SettingsDialog(int template_id, int value) noexcept : value_(value), template_id_(template_id) {}
  ~SettingsDialog() = default;

  // Sets up the controls and returns the one that the keyboard starts at. May throw.
  virtual HWND OnOpening() = 0;
  // A click on an item, also one by keyboard.
  virtual void OnClick(int /*item*/) {}
  // OK was pressed; the dialog ends after this.
  virtual void OnOk() {}

  // The window of an item. Throws where the template has none.
  HWND Item(int item) const;

  int value_;  // that the user edits

 private:
  static INT_PTR CALLBACK Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
  void Open(HWND window);
  void Command(int item, int notification);

  const int template_id_;
  HWND window_ = nullptr;
};

// A group of radio buttons, one for each choice. A value that no button stands for checks none, and
// stays until one is clicked.
class RadioDialog : public SettingsDialog {
 protected:
  struct Choice {
    int item;
    int value;
  };
  RadioDialog(int template_id, std::span<const Choice> choices, int value) noexcept
      : SettingsDialog(template_id, value), choices_(choices) {}

 private:
  // The keyboard starts at the checked button, and otherwise at OK, because a radio button that
  // gets the keyboard counts as clicked.
  HWND OnOpening() override;
  void OnClick(int item) override;

  const std::span<const Choice> choices_;
};

// "Wave Encoder Settings". Floats always have 32 bits.
class CWavSettings final : public RadioDialog {
 public:
  CWavSettings(SHORT bits_per_sample, bool is_float) noexcept;

  SHORT bits_per_sample() const noexcept {
    return is_float() ? SHORT{32} : static_cast<SHORT>(value_);
  }
  bool is_float() const noexcept { return value_ == kFloat; }

 private:
  static constexpr int kFloat = 1 << 16;  // no number of bits
  static const Choice kChoices[];
};

// "WMA Encoder Settings".
class CWmaSettings final : public RadioDialog {
 public:
  explicit CWmaSettings(int bit_rate_kbit) noexcept;

  int bit_rate_kbit() const noexcept { return value_; }

 private:
  static const Choice kChoices[];
};

// "MPEG Layer 3 Encoder Settings". Offers the customary bit rates up to the best that an encoder
// filter has. An encoder that does not report its capabilities has a best of 0: then there is
// nothing to choose, and the bit rate does not change.
class CMpegSettings final : public SettingsDialog {
 public:
  // Reads the capabilities of the encoder, which may be null.
  CMpegSettings(IBaseFilter* encoder, int bit_rate_kbit);

  int bit_rate_kbit() const noexcept { return value_; }

 private:
  // Lowers the bit rate to the encoder's best. One that is not in the list selects no line.
  HWND OnOpening() override;
  void OnOk() override;

  const int max_bit_rate_kbit_;
};

// The window whose handle came as the number that interfaces carry. A handle has 32 significant
// bits on every Windows.
inline HWND WindowOfNumber(ULONG number) noexcept {
  return static_cast<HWND>(LongToHandle(static_cast<LONG>(number)));
}

}  // namespace marlinda
