// Reads the chunks of WAVE files and some chunks of AVI files: format, samples, labels, section
// markers, metadata and loop data. Input is untrusted. Reading always ends, and sizes that a file
// claims do not increase memory use.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Reads a RIFF file, or its 64-bit variants RF64 and BW64. Returns nothing if the file is of
// another kind.
//
// Chunks are padded to 2 bytes. Files padded to 4 bytes, with the padding included in the sizes,
// also work. A size that exceeds the file is reduced, so that a truncated file can be read.
//
// Cue points become labels in file order. A cue point with an "ltxt" becomes a section marker.
// Markers keep the order of the "ltxt" chunks. An "ltxt" without length and name is ignored if a
// "labl" names the cue point. A cue point whose "labl" is missing or empty takes its name from its
// "note". A marker without a name takes the name of its cue point.
//
// Loop data has the layout that the engine writes, with the root note in the first field.
std::optional<SoundFileInfo> ReadRiff(ByteSource& file);

}  // namespace marlinda
