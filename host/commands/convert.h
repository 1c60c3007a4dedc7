// "marlinda convert": a whole file as WAV, with its tags, labels, markers and loop data, and in
// another sample rate or number of channels if asked.
#pragma once

#include <optional>
#include <string>

#include "host/console.h"

namespace marlinda {

struct ConvertOptions {
  std::string input;
  std::string output;
  int bits = 16;
  // Those of the input unless given.
  std::optional<int> rate;
  std::optional<int> channels;
  bool json = false;
};

void RunConvert(const ConvertOptions& options, const Console& console);

}  // namespace marlinda
