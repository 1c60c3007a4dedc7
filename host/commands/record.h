// "marlinda record": a WAV file of what a sound device hears.
#pragma once

#include <optional>
#include <string>

#include "host/console.h"

namespace marlinda {

struct RecordOptions {
  std::string output;
  std::string seconds;
  int rate = 44100;
  int channels = 2;
  int bits = 16;
  std::optional<int> device;
  bool json = false;
};

void RunRecord(const RecordOptions& options, const Console& console);

}  // namespace marlinda
