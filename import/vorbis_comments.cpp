#include "import/vorbis_comments.h"

#include <algorithm>
#include <string>

namespace marlinda {
namespace {

// Field names are ASCII; the program's locale must have no say in them.
char UpperCase(char c) noexcept {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

void ApplyVorbisComment(std::string_view comment, MetaData& data) {
  const std::size_t equals = comment.find('=');
  if (equals == std::string_view::npos || equals == 0) return;
  std::string key(comment.substr(0, equals));
  std::ranges::transform(key, key.begin(), UpperCase);
  const std::string_view value = comment.substr(equals + 1);
  if (key == "TITLE") {
    data.title = value;
  } else if (key == "ARTIST") {
    data.artist = value;
  } else if (key == "ALBUM") {
    data.album = value;
  } else if (key == "DATE") {
    data.year = value.substr(0, 4);
  } else if (key == "GENRE") {
    data.genre = value;
  }
}

}  // namespace marlinda
