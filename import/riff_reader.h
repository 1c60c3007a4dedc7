// The chunks of RIFF files (WAVE, and what AVI shares with it): format, samples, labels, section
// markers, metadata and loop data. Input is hostile until proven otherwise: whatever a file holds,
// reading ends, in memory that does not grow with what the file only claims.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Reads a RIFF file, or an RF64 one whose size needs 64 bits. Nothing when it is neither.
//
// Chunks are padded to 2 bytes, as RIFF asks; files padded to 4 with the padding counted in the
// sizes read the same. Sizes that reach beyond the file are cut to it, so what a truncated file
// holds is there.
//
// Cue points become labels in their order. One with an "ltxt" becomes a section marker instead, in
// the order of these, unless that has neither length nor name while a "labl" names the point. A
// marker without a name of its own takes that of its "labl", a label without one that of its
// "note".
//
// Loop data is read in the layout that the engine writes, with the root note in the first field.
std::optional<SoundFileInfo> ReadRiff(ByteSource& file);

}  // namespace marlinda
