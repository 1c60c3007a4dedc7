#include "export/wav_settings.h"

#include "core/resource.h"

namespace marlinda {
namespace {

struct WidthChoice {
  int item;
  int bits_per_sample;
  bool is_float;
};

constexpr WidthChoice kWidthChoices[] = {
    {IDC_WAV_8_BITS, 8, false},   {IDC_WAV_16_BITS, 16, false}, {IDC_WAV_24_BITS, 24, false},
    {IDC_WAV_32_BITS, 32, false}, {IDC_WAV_FLOAT, 32, true},
};

}  // namespace

CWavSettings::CWavSettings(int bits_per_sample, bool is_float) noexcept
    : SettingsDialog(IDD_WAV_SETTINGS), bits_per_sample_(bits_per_sample), is_float_(is_float) {}

HWND CWavSettings::OnOpening() {
  if (is_float_) bits_per_sample_ = 32;
  int checked = 0;
  for (const WidthChoice& choice : kWidthChoices) {
    if (choice.bits_per_sample == bits_per_sample_ && choice.is_float == is_float_) {
      checked = choice.item;
    }
  }
  return CheckRadio(IDC_WAV_8_BITS, IDC_WAV_FLOAT, checked);
}

void CWavSettings::OnClick(int item) {
  for (const WidthChoice& choice : kWidthChoices) {
    if (choice.item != item) continue;
    bits_per_sample_ = choice.bits_per_sample;
    is_float_ = choice.is_float;
  }
}

}  // namespace marlinda
