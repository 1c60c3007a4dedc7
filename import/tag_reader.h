// The tags of compressed files, read by TagLib: ID3 of MP3 files, the content description of
// Windows Media files. Input is hostile until proven otherwise.
#pragma once

#include <optional>

#include "core/records.h"
#include "import/byte_source.h"

namespace marlinda {

// The texts in UTF-8. Of a file with both kinds of ID3 tags the newer one counts, and the older one
// fills in what is missing there. Nothing when the file has no tag of these kinds.
std::optional<Tags> ReadTags(ByteSource& file);

}  // namespace marlinda
