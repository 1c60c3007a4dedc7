// "marlinda cut": pieces of a file joined in the order given, with silence, labels and markers.
#pragma once

#include <string>

#include "host/console.h"
#include "host/cut_plan.h"
#include "host/document_picture.h"

namespace marlinda {

struct CutOptions {
  std::string input;
  std::string output;
  CutRequest request;
  PictureRequest picture;  // of the result; none without a file
  int bits = 16;
  bool json = false;
};

void RunCut(const CutOptions& options, const Console& console);

}  // namespace marlinda
