// The modal dialogs in which a user chooses how an export is encoded.
#pragma once

#include <windows.h>

#include <algorithm>
#include <span>

#include "core/com_call.h"
#include "core/module.h"
#include "core/resource.h"
#include "core/text.h"
#include "export/mp3_encoder.h"

namespace marlinda {

inline constexpr INT_PTR kNotShown = -1;
inline constexpr int kMpegBitRatesKbit[] = {56, 64, 96, 128, 192, 256, 320};

// Returns the highest bit rate that the first MP3 encoder reports, or 0 without an encoder.
inline int BestBitRateKbit() {
  int best = 0;
  ForEachMp3Encoder([&](IBaseFilter* encoder) {
    ForEachCapability(FindStreamConfig(encoder).Get(), [&](const AM_MEDIA_TYPE& type) {
      if (const auto* format = WaveFormatOf(type)) best = std::max(best, BitRateKbit(*format));
    });
    return true;
  });
  return best;
}

// A dialog edits its own copies of the values. Use its results only after IDOK.
class SettingsDialog {
 public:
  // Shows the dialog, modal to `owner`, which may be null. Returns IDOK, or IDCANCEL if the user
  // cancelled or closed the window. Any other result means that no dialog was shown, because the
  // owner does not exist or the controls could not be set up.
  INT_PTR ShowModal(HWND owner) {
    const INT_PTR result = DialogBoxParamW(TheModule().Instance(), MAKEINTRESOURCEW(template_id_),
                                           owner, Procedure, reinterpret_cast<LPARAM>(this));
    window_ = nullptr;
    return result;
  }

 protected:
  SettingsDialog(int template_id, int value) noexcept : value_(value), template_id_(template_id) {}
  ~SettingsDialog() = default;

  // Sets up the controls and returns the control that gets the initial focus. May throw.
  virtual HWND OnOpening() = 0;
  // Called when the user clicks an item with the mouse or the keyboard.
  virtual void OnClick(int /*item*/) {}
  // Called when the user presses OK. The dialog ends afterwards.
  virtual void OnOk() {}

  // Returns the window of an item. Throws if the dialog template lacks the item.
  HWND Item(int item) const {
    HWND found = GetDlgItem(window_, item);
    if (found == nullptr) throw HResultError(LastErrorResult());
    return found;
  }

  int value_;  // edited by the user

 private:
  static INT_PTR CALLBACK Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_INITDIALOG) {
      SetWindowLongPtrW(window, DWLP_USER, lparam);
      reinterpret_cast<SettingsDialog*>(lparam)->Open(window);
      return FALSE;  // Open has set the focus
    }
    auto* const self = reinterpret_cast<SettingsDialog*>(GetWindowLongPtrW(window, DWLP_USER));
    if (message != WM_COMMAND || self == nullptr) return FALSE;
    self->Command(LOWORD(wparam), HIWORD(wparam));
    return TRUE;
  }
  void Open(HWND window) {
    window_ = window;
    const HRESULT hr = ComCall([&] {
      HWND start = OnOpening();
      SendMessageW(window_, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(start), TRUE);
    });
    if (FAILED(hr)) EndDialog(window_, kNotShown);
  }
  void Command(int item, int notification) {
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

  const int template_id_;
  HWND window_ = nullptr;
};

// A group of radio buttons, one for each choice. If no button has the initial value, no button is
// checked, and the value stays until the user clicks a button.
class RadioDialog : public SettingsDialog {
 protected:
  struct Choice {
    int item;
    int value;
  };
  RadioDialog(int template_id, std::span<const Choice> choices, int value) noexcept
      : SettingsDialog(template_id, value), choices_(choices) {}

 private:
  // The checked button gets the initial focus. If no button is checked, OK gets the focus, because
  // a radio button counts as clicked when it gets the focus.
  HWND OnOpening() override {
    const auto chosen = std::ranges::find(choices_, value_, &Choice::value);
    if (chosen == choices_.end()) return Item(IDOK);
    HWND button = Item(chosen->item);
    // Also moves the group's tab stop to this button.
    CheckRadioButton(GetParent(button), choices_.front().item, choices_.back().item, chosen->item);
    return button;
  }
  void OnClick(int item) override {
    const auto clicked = std::ranges::find(choices_, item, &Choice::item);
    if (clicked != choices_.end()) value_ = clicked->value;
  }

  const std::span<const Choice> choices_;
};

// The dialog "Wave Encoder Settings". Float samples have 32 bits.
class CWavSettings final : public RadioDialog {
 public:
  CWavSettings(SHORT bits_per_sample, bool is_float) noexcept
      : RadioDialog(IDD_WAV_SETTINGS, kChoices, is_float ? kFloat : bits_per_sample) {}

  SHORT bits_per_sample() const noexcept {
    return is_float() ? SHORT{32} : static_cast<SHORT>(value_);
  }
  bool is_float() const noexcept { return value_ == kFloat; }

 private:
  static constexpr int kFloat = 1 << 16;  // not a number of bits
  static constexpr Choice kChoices[] = {{IDC_WAV_8_BITS, 8},
                                        {IDC_WAV_16_BITS, 16},
                                        {IDC_WAV_24_BITS, 24},
                                        {IDC_WAV_32_BITS, 32},
                                        {IDC_WAV_FLOAT, kFloat}};
};

// The dialog "WMA Encoder Settings".
class CWmaSettings final : public RadioDialog {
 public:
  explicit CWmaSettings(int bit_rate_kbit) noexcept
      : RadioDialog(IDD_WMA_SETTINGS, kChoices, bit_rate_kbit) {}

  int bit_rate_kbit() const noexcept { return value_; }

 private:
  static constexpr Choice kChoices[] = {
      {IDC_WMA_64_KBIT, 64}, {IDC_WMA_96_KBIT, 96}, {IDC_WMA_128_KBIT, 128}};
};

// The dialog "MPEG Layer 3 Encoder Settings". Offers the usual bit rates up to the highest that the
// first encoder of ForEachMp3Encoder reports. If the encoder reports no capabilities, the dialog
// offers no choice and does not change the bit rate.
class CMpegSettings final : public SettingsDialog {
 public:
  explicit CMpegSettings(int bit_rate_kbit) : SettingsDialog(IDD_MPEG_SETTINGS, bit_rate_kbit) {}

  int bit_rate_kbit() const noexcept { return value_; }

 private:
  // Limits the bit rate to the encoder's highest. If the list lacks this rate, selects no line.
  HWND OnOpening() override {
    HWND list = Item(IDC_MPEG_BIT_RATE);
    if (max_bit_rate_kbit_ == 0) return list;

    value_ = std::min(max_bit_rate_kbit_, value_);
    const std::string pattern = TheModule().LoadText(IDS_BIT_RATE);
    for (int row = 0; row < std::ssize(kMpegBitRatesKbit); ++row) {
      const int rate = kMpegBitRatesKbit[row];
      if (rate > max_bit_rate_kbit_) break;
      const std::string line = Format(pattern, rate);
      if (SendMessageA(list, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(line.c_str())) < 0) {
        throw HResultError(E_OUTOFMEMORY);
      }
      // The list holds the first rows of the sorted table, so a line has the same index as its row.
      if (rate == value_) SendMessageA(list, CB_SETCURSEL, static_cast<WPARAM>(row), 0);
    }
    return list;
  }
  void OnOk() override {
    const LRESULT row = SendMessageA(Item(IDC_MPEG_BIT_RATE), CB_GETCURSEL, 0, 0);
    if (row >= 0 && row < std::ssize(kMpegBitRatesKbit)) value_ = kMpegBitRatesKbit[row];
  }

  const int max_bit_rate_kbit_ = BestBitRateKbit();
};

// Returns the window handle that a host has passed as a number. Window handles have 32 significant
// bits on every Windows.
inline HWND WindowOfNumber(ULONG number) noexcept {
  return static_cast<HWND>(LongToHandle(static_cast<LONG>(number)));
}

}  // namespace marlinda
