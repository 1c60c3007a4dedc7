// The headers of AIFF, AIFF-C and AU files: where their samples are and how many. Input is hostile
// until proven otherwise.
#pragma once

#include "import/byte_source.h"
#include "import/sound_facts.h"

namespace marlinda {

// Each is nothing when the file is of another kind. Compressed samples are left to others; what the
// header then tells is their number, for a decoder may hand out more than belong to the sound.
std::optional<SoundFacts> ReadAiff(ByteSource& file);
std::optional<SoundFacts> ReadAu(ByteSource& file);

}  // namespace marlinda
