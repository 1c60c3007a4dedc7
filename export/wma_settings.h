// CWmaSettings: the dialog "WMA Encoder Settings".
#pragma once

#include "export/settings_dialog.h"

namespace marlinda {

class CWmaSettings final : public SettingsDialog {
 public:
  explicit CWmaSettings(int bit_rate_kbit) noexcept;

  int bit_rate_kbit() const noexcept { return bit_rate_kbit_; }

 private:
  // A bit rate that no button stands for checks none, and stays until one is clicked.
  HWND OnOpening() override;
  void OnClick(int item) override;

  int bit_rate_kbit_;
};

}  // namespace marlinda
