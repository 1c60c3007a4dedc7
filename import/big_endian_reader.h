// Reads the position and number of the samples from the headers of AIFF, AIFF-C and AU files. Input
// is untrusted.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Both return nothing if the file is of another kind. They refuse samples that need a decoder,
// because the system's filters crash on such AIFF-C files and play such AU files' headers as sound.
std::optional<SoundFileInfo> ReadAiff(ByteSource& file);
std::optional<SoundFileInfo> ReadAu(ByteSource& file);

}  // namespace marlinda
