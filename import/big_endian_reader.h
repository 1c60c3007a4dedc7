// Reads the position and number of the samples from the headers of AIFF, AIFF-C and AU files. Input
// is untrusted.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Both functions return nothing if the file is of another kind. They refuse compressed samples: the
// system's filters crash on such AIFF-C files and play the header of such AU files as sound.
std::optional<SoundFileInfo> ReadAiff(ByteSource& file);
std::optional<SoundFileInfo> ReadAu(ByteSource& file);

}  // namespace marlinda
