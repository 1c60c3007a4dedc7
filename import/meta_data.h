// The five descriptive texts that the engine knows of a file.
#pragma once

#include <string>

namespace marlinda {

struct MetaData {
  std::string title;
  std::string artist;
  std::string album;
  std::string year;
  std::string genre;

  friend bool operator==(const MetaData&, const MetaData&) = default;
};

}  // namespace marlinda
