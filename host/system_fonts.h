// The outlines of texts in the fonts of the system.
#pragma once

#include "host/waveform_picture.h"

namespace marlinda {

// Shapes one line of UTF-8, control characters as spaces. Each character comes from the usual font
// of the system or, where that lacks it, from the first other one that has it.
ShapeText SystemFonts();

}  // namespace marlinda
