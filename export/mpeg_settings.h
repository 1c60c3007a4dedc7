// CMpegSettings: the dialog "MPEG Layer 3 Encoder Settings".
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include "export/settings_dialog.h"

namespace marlinda {

// Offers the customary bit rates up to the best that an encoder filter has. An encoder that does
// not report its capabilities has a best of 0: then there is nothing to choose, and the bit rate
// does not change.
class CMpegSettings final : public SettingsDialog {
 public:
  // Reads the capabilities of the encoder, which may be null.
  CMpegSettings(IBaseFilter* encoder, int bit_rate_kbit);

  int bit_rate_kbit() const noexcept { return bit_rate_kbit_; }

 private:
  // Lowers the bit rate to the encoder's best. One that is not in the list selects no line.
  HWND OnOpening() override;
  void OnOk() override;

  const int max_bit_rate_kbit_;
  int bit_rate_kbit_;
};

}  // namespace marlinda
