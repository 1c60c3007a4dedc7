// Pictures as PNG files.
#pragma once

#include <string>

#include "host/picture.h"

namespace marlinda {

// Writes the picture; an existing file is replaced. Throws a HostError that names the file, and
// then leaves no half of one.
void WritePng(const std::string& file, const Picture& picture);

}  // namespace marlinda
