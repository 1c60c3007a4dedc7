// "marlinda play": an audio file through a sound device.
#pragma once

#include <optional>
#include <string>

#include "host/console.h"

namespace marlinda {

struct PlayOptions {
  std::string input;
  std::string from;  // either may be empty
  std::string to;
  std::string channels;  // all when empty
  std::optional<int> device;
  bool loop = false;
  bool json = false;
};

void RunPlay(const PlayOptions& options, const Console& console);

}  // namespace marlinda
