// "marlinda plot": the waveform of an audio file as a picture.
#pragma once

#include <string>

#include "host/console.h"
#include "host/document_picture.h"

namespace marlinda {

struct PlotOptions {
  std::string input;
  PictureRequest picture;
  std::string from;  // either may be empty
  std::string to;
  bool json = false;
};

void RunPlot(PlotOptions options, const Console& console);

}  // namespace marlinda
