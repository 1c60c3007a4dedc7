// Reads the headers of AIFF, AIFF-C and AU files: where the samples are and how many. Input is
// untrusted.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Both return nothing if the file is of another kind. Samples that need a decoder are refused: the
// system's filters crash on such AIFF-C files and play the header of such AU files as sound.
std::optional<SoundFileInfo> ReadAiff(ByteSource& file);
std::optional<SoundFileInfo> ReadAu(ByteSource& file);

}  // namespace marlinda
