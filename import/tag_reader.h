// Metadata that compressed files carry: ID3 tags of MP3 files, the content description of Windows
// Media files. Input is hostile until proven otherwise.
#pragma once

#include <optional>

#include "import/byte_source.h"
#include "import/meta_data.h"

namespace marlinda {

// The texts in UTF-8. Of a file with both kinds of ID3 tags the newer one counts, and the older one
// fills in what is missing there. Nothing when the file has no tag of these kinds.
std::optional<MetaData> ReadTags(ByteSource& file);

}  // namespace marlinda
