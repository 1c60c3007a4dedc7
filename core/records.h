// Labels, markers, tags and loop data of a document or file. Texts use the system's ANSI code page.
#pragma once

#include <cstdint>
#include <string>

#include "core/section.h"

namespace marlinda {

struct Label {
  std::int64_t position = 0;
  std::string name;

  friend bool operator==(const Label&, const Label&) = default;
};

struct SectionMarker {
  CSection section;
  std::string name;
};

struct Tags {
  std::string title;
  std::string artist;
  std::string album;
  std::string year;
  std::string genre;

  friend bool operator==(const Tags&, const Tags&) = default;
};

struct AcidData {
  std::int32_t root_note = 0;
  std::int16_t meter_beats = 0;
  std::int16_t meter_delimiter = 0;
  std::int32_t beat_count = 0;
  float tempo = 0;

  friend bool operator==(const AcidData&, const AcidData&) = default;
};

}  // namespace marlinda
