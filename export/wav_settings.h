// CWavSettings: the dialog "Wave Encoder Settings".
#pragma once

#include "export/settings_dialog.h"

namespace marlinda {

class CWavSettings final : public SettingsDialog {
 public:
  CWavSettings(int bits_per_sample, bool is_float) noexcept;

  int bits_per_sample() const noexcept { return bits_per_sample_; }
  bool is_float() const noexcept { return is_float_; }

 private:
  // Floats always have 32 bits: the dialog sets them when it opens. A width that no button stands
  // for checks none, and stays until one is clicked.
  HWND OnOpening() override;
  void OnClick(int item) override;

  int bits_per_sample_;
  bool is_float_;
};

}  // namespace marlinda
