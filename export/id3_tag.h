// The tags of an MP3 file: version 2.3 in front of the sound, version 1 behind it for old players.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace marlinda {

// Empty texts are left out. Of the year four characters count, as the tags have room for.
struct Id3Texts {
  std::u16string title = {};
  std::u16string artist = {};
  std::u16string album = {};
  std::u16string year = {};
  std::u16string genre = {};
};

// Empty when all texts are. Texts that Latin-1 cannot hold are written as UTF-16.
std::vector<std::byte> Id3v2Tag(const Id3Texts& texts);

// 128 bytes, or empty when all texts are. Texts are cut to their fields, with a question mark for
// what Latin-1 cannot hold; the genre, for which the tag has a number of a fixed list, is left out.
std::vector<std::byte> Id3v1Tag(const Id3Texts& texts);

}  // namespace marlinda
