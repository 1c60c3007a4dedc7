// The bytes of the WAV files that this system writes, but for the samples. docs/files.md has
// the byte tables.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/records.h"
#include "export/little_endian.h"

namespace marlinda {

// Nothing here is validated; a field of the file holds the low bits of a value.
struct WavFormat {
  std::int32_t samples_per_sec = 0;
  std::int16_t channels = 0;
  std::int16_t bits = 16;
  bool is_float = false;

  // Bytes of one frame in the file: whole bytes per sample, the division rounding toward zero.
  std::int32_t BlockAlign() const noexcept { return channels * (bits / 8); }
};

// What a file carries beside its samples. Names hold no NUL.
struct WavAnnotations {
  std::vector<Label> labels = {};
  std::vector<SectionMarker> markers = {};
  Tags tags = {};
  std::optional<AcidData> acid = {};
};

// Whether more than two channels get the 40 bytes of an extensible format.
enum class ManyChannels { kExtensible, kPlain };

// Everything before the samples: "RIFF", "fmt " and the header of "data". The sizes of "RIFF" and
// "data" are 0; the file fills them in at its end.
LittleEndianBytes WavHeader(const WavFormat& format, ManyChannels many_channels);

// Everything behind the samples: "cue " and "adtl" where there are labels or markers, "INFO" in any
// case, "acid" where it was set.
LittleEndianBytes WavTrailer(const WavAnnotations& annotations, std::int32_t block_align);

}  // namespace marlinda
