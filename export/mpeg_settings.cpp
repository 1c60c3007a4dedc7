#include "export/mpeg_settings.h"

#include <algorithm>
#include <iterator>

#include "core/module.h"
#include "core/resource.h"
#include "core/text.h"
#include "export/stream_config.h"

namespace marlinda {
namespace {

constexpr int kBitRatesKbit[] = {56, 64, 96, 128, 192, 256, 320};

int BestBitRateKbit(IBaseFilter* encoder) {
  int best = 0;
  ForEachCapability(FindStreamConfig(encoder).Get(), [&](const AM_MEDIA_TYPE& type) {
    if (const auto* format = WaveFormatOf(type)) best = std::max(best, BitRateKbit(*format));
  });
  return best;
}

}  // namespace

CMpegSettings::CMpegSettings(IBaseFilter* encoder, int bit_rate_kbit)
    : SettingsDialog(IDD_MPEG_SETTINGS),
      max_bit_rate_kbit_(BestBitRateKbit(encoder)),
      bit_rate_kbit_(bit_rate_kbit) {}

HWND CMpegSettings::OnOpening() {
  HWND list = Item(IDC_MPEG_BIT_RATE);
  if (max_bit_rate_kbit_ == 0) return list;

  bit_rate_kbit_ = std::min(max_bit_rate_kbit_, bit_rate_kbit_);
  const std::string pattern = TheModule().LoadText(IDS_BIT_RATE);
  for (int row = 0; row < static_cast<int>(std::size(kBitRatesKbit)); ++row) {
    const int rate = kBitRatesKbit[row];
    if (rate > max_bit_rate_kbit_) break;
    const std::string line = Format(pattern, rate);
    if (SendMessageA(list, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(line.c_str())) < 0) {
      throw HResultError(E_OUTOFMEMORY);
    }
    // The table ascends, so lines and rows have the same numbers.
    if (rate == bit_rate_kbit_) SendMessageA(list, CB_SETCURSEL, static_cast<WPARAM>(row), 0);
  }
  return list;
}

void CMpegSettings::OnOk() {
  const LRESULT row = SendMessageA(Item(IDC_MPEG_BIT_RATE), CB_GETCURSEL, 0, 0);
  if (row >= 0 && row < std::ssize(kBitRatesKbit)) bit_rate_kbit_ = kBitRatesKbit[row];
}

}  // namespace marlinda
