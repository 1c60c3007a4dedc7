// Reads the tags of compressed files with TagLib: ID3 tags and the content description of Windows
// Media files. Input is untrusted.
#pragma once

#include <optional>

#include "core/records.h"
#include "import/byte_source.h"

namespace marlinda {

// Returns the texts in UTF-8, or nothing without a tag of these kinds. In a file with both kinds of
// ID3 tags the newer kind counts, and the older one fills in missing texts.
std::optional<Tags> ReadTags(ByteSource& file);

}  // namespace marlinda
