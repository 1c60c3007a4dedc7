// What convert and cut report about the file they wrote.
#pragma once

#include "host/console.h"
#include "host/engine.h"

namespace marlinda {

struct WrittenFile {
  std::string input;
  std::string filter;  // class name of the filter that read the input
  std::string output;
  AudioFormat format;
  int bits = 16;
  std::int64_t frames = 0;
  Annotations annotations;
  WaveFileFacts facts;
  std::optional<std::string> picture = {};  // drawn beside it
};

void PrintSummary(const WrittenFile& written, bool json, const Console& console);

}  // namespace marlinda
