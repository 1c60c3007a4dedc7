// Vorbis comments as the five metadata texts that the engine knows.
#pragma once

#include <string_view>

#include "import/meta_data.h"

namespace marlinda {

// Takes one user comment, "KEY=value" with the key in any case, into `data`. A later comment
// replaces an earlier one with the same key. DATE gives the year: its first four characters, so
// that a full date counts too. Comments with other keys, without "=" or beginning with it are
// ignored.
void ApplyVorbisComment(std::string_view comment, MetaData& data);

}  // namespace marlinda
