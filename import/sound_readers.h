// Reads RIFF, AIFF and AU files, and the tags of compressed files. Input is untrusted. Every
// function returns for any input. Wrong sizes in a file do not increase memory use.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Reads a RIFF file, or its 64-bit variants RF64 and BW64. Returns nothing if the file is of
// another kind.
//
// Chunks are padded to 2 bytes. Chunks padded to 4 bytes, with the padding included in the sizes,
// also work. A size that exceeds the file is reduced, so that a truncated file can be read.
//
// Cue points become labels in file order. A cue point with an "ltxt" becomes a section marker.
// Markers keep the order of the "ltxt" chunks. An "ltxt" without length and name is ignored if the
// cue point has a "labl". A cue point whose "labl" is missing or empty gets its name from its
// "note". A marker whose "ltxt" has no name gets the name of its cue point.
//
// Loop data ("acid") has the layout that the engine writes, with the root note in the first field.
std::optional<SoundFileInfo> ReadRiff(ByteSource& file);

// ReadAiff and ReadAu return nothing for other formats. They set `refused` for codings that
// ReadSamples cannot read. The system's filters would crash on such AIFF-C files and play the
// headers of such AU files as sound.
std::optional<SoundFileInfo> ReadAiff(ByteSource& file);
std::optional<SoundFileInfo> ReadAu(ByteSource& file);

// Uses TagLib to read the ID3 tags or content description of a compressed file. Returns the texts
// in UTF-8, or nothing if the file has no such tag. If a file has ID3v2 and ID3v1 tags, the ID3v1
// tag only fills in missing texts.
std::optional<Tags> ReadTags(ByteSource& file);

}  // namespace marlinda
