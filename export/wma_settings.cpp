#include "export/wma_settings.h"

#include "core/resource.h"

namespace marlinda {
namespace {

struct BitRateChoice {
  int item;
  int bit_rate_kbit;
};

constexpr BitRateChoice kBitRateChoices[] = {
    {IDC_WMA_64_KBIT, 64}, {IDC_WMA_96_KBIT, 96}, {IDC_WMA_128_KBIT, 128}};

}  // namespace

CWmaSettings::CWmaSettings(int bit_rate_kbit) noexcept
    : SettingsDialog(IDD_WMA_SETTINGS), bit_rate_kbit_(bit_rate_kbit) {}

HWND CWmaSettings::OnOpening() {
  int checked = 0;
  for (const BitRateChoice& choice : kBitRateChoices) {
    if (choice.bit_rate_kbit == bit_rate_kbit_) checked = choice.item;
  }
  return CheckRadio(IDC_WMA_64_KBIT, IDC_WMA_128_KBIT, checked);
}

void CWmaSettings::OnClick(int item) {
  for (const BitRateChoice& choice : kBitRateChoices) {
    if (choice.item == item) bit_rate_kbit_ = choice.bit_rate_kbit;
  }
}

}  // namespace marlinda
