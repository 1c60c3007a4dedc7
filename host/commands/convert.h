// "marlinda convert": a whole file as WAV, with its tags, labels, markers and loop data.
#pragma once

#include <string>

#include "host/console.h"

namespace marlinda {

struct ConvertOptions {
  std::string input;
  std::string output;
  int bits = 16;
  bool json = false;
};

void RunConvert(const ConvertOptions& options, const Console& console);

}  // namespace marlinda
