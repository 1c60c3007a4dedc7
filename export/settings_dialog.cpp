#include "export/settings_dialog.h"

#include <algorithm>

#include "core/com_call.h"
#include "core/module.h"
#include "core/resource.h"
#include "core/text.h"
#include "export/mp3_encoder.h"

namespace marlinda {
namespace {

constexpr INT_PTR kNotShown = -1;
constexpr int kMpegBitRatesKbit[] = {56, 64, 96, 128, 192, 256, 320};

int BestBitRateKbit(IBaseFilter* encoder) {
  int best = 0;
  ForEachCapability(FindStreamConfig(encoder).Get(), [&](const AM_MEDIA_TYPE& type) {
    if (const auto* format = WaveFormatOf(type)) best = std::max(best, BitRateKbit(*format));
  });
  return best;
}

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

HWND RadioDialog::OnOpening() {
  const auto chosen = std::ranges::find(choices_, value_, &Choice::value);
  if (chosen == choices_.end()) return Item(IDOK);  // a fresh dialog has none checked
  HWND button = Item(chosen->item);
  // Makes the button the tab stop of the group, too.
  CheckRadioButton(GetParent(button), choices_.front().item, choices_.back().item, chosen->item);
  return button;
}

void RadioDialog::OnClick(int item) {
  const auto clicked = std::ranges::find(choices_, item, &Choice::item);
  if (clicked != choices_.end()) value_ = clicked->value;
}

const RadioDialog::Choice CWavSettings::kChoices[] = {{IDC_WAV_8_BITS, 8},
                                                      {IDC_WAV_16_BITS, 16},
                                                      {IDC_WAV_24_BITS, 24},
                                                      {IDC_WAV_32_BITS, 32},
                                                      {IDC_WAV_FLOAT, kFloat}};

CWavSettings::CWavSettings(SHORT bits_per_sample, bool is_float) noexcept
    : RadioDialog(IDD_WAV_SETTINGS, kChoices, is_float ? kFloat : bits_per_sample) {}

const RadioDialog::Choice CWmaSettings::kChoices[] = {
    {IDC_WMA_64_KBIT, 64}, {IDC_WMA_96_KBIT, 96}, {IDC_WMA_128_KBIT, 128}};

CWmaSettings::CWmaSettings(int bit_rate_kbit) noexcept
    : RadioDialog(IDD_WMA_SETTINGS, kChoices, bit_rate_kbit) {}

CMpegSettings::CMpegSettings(IBaseFilter* encoder, int bit_rate_kbit)
    : SettingsDialog(IDD_MPEG_SETTINGS, bit_rate_kbit),
      max_bit_rate_kbit_(BestBitRateKbit(encoder)) {}

HWND CMpegSettings::OnOpening() {
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
    // The table ascends, so lines and rows have the same numbers.
    if (rate == value_) SendMessageA(list, CB_SETCURSEL, static_cast<WPARAM>(row), 0);
  }
  return list;
}

void CMpegSettings::OnOk() {
  const LRESULT row = SendMessageA(Item(IDC_MPEG_BIT_RATE), CB_GETCURSEL, 0, 0);
  if (row >= 0 && row < std::ssize(kMpegBitRatesKbit)) value_ = kMpegBitRatesKbit[row];
}

}  // namespace marlinda
