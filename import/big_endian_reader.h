// The headers of AIFF, AIFF-C and AU files: where their samples are and how many. Input is hostile
// until proven otherwise.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Each is nothing when the file is of another kind. Compressed samples are refused: the filters of
// the system crash on those of AIFF-C files and take the header of an AU file for sound.
std::optional<SoundFileInfo> ReadAiff(ByteSource& file);
std::optional<SoundFileInfo> ReadAu(ByteSource& file);

}  // namespace marlinda
