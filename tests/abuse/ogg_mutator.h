// Damages Ogg files in the ways that reach deepest: with the pages' checksums made right again, so
// that the decoder sees the damage instead of a page that it throws away. The same seed, the same
// damage.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marlinda::testing {

using OggBytes = std::vector<unsigned char>;

struct DamagedOgg {
  std::string what;
  OggBytes bytes;
};

DamagedOgg Damage(const std::vector<OggBytes>& seeds, std::uint32_t number);

}  // namespace marlinda::testing
