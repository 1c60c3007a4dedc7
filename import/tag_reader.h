// Reads the tags of compressed files with TagLib: ID3 tags and the content description of Windows
// Media files. Input is untrusted.
#pragma once

#include <optional>

#include "core/records.h"
#include "import/byte_source.h"

namespace marlinda {

// Returns the texts in UTF-8, or nothing if the file has no such tag. If a file has ID3v2 and ID3v1
// tags, the ID3v1 tag only fills in missing texts.
std::optional<Tags> ReadTags(ByteSource& file);

}  // namespace marlinda
