// "marlinda scrub": an audio file heard at positions that a list or the arrow keys give.
#pragma once

#include <optional>
#include <string>

#include "host/console.h"

namespace marlinda {

struct ScrubOptions {
  std::string input;
  std::string at;            // positions with commas between them; the keys move when it is empty
  std::string hold = "0.5";  // how long each of them is heard
  std::optional<int> device;
  bool json = false;
};

void RunScrub(const ScrubOptions& options, const Console& console);

}  // namespace marlinda
