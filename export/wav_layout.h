// The chunks of the WAV files that this system writes. All functions write through a
// RiffChunkWriter; docs/wav-layout.md has the byte tables.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "export/little_endian.h"
#include "export/riff_chunk_writer.h"

namespace marlinda {

// Nothing here is validated; a field of the file holds the low bits of what stands here.
struct WavFormat {
  std::int32_t samples_per_sec = 0;
  std::int16_t channels = 0;
  std::int16_t bits = 16;
  bool is_float = false;

  // Bytes of one frame in the file: whole bytes per sample, the division rounding toward zero.
  std::int32_t BlockAlign() const noexcept { return channels * (bits / 8); }
};

// Names are in the system's code page and hold no NUL.
struct WavLabel {
  std::string name;
  std::int64_t position = 0;
};

struct WavMarker {
  std::string name;
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

struct WavMetaData {
  std::string title;
  std::string artist;
  std::string album;
  std::string year;
  std::string genre;
};

struct WavAcidData {
  std::int32_t root_note = 0;
  std::int16_t meter_beats = 0;
  std::int16_t meter_delimiter = 0;
  std::int32_t beat_count = 0;
  float tempo = 0;
};

// What a file carries beside its samples.
struct WavAnnotations {
  std::vector<WavLabel> labels;
  std::vector<WavMarker> markers;
  WavMetaData meta_data;
  std::optional<WavAcidData> acid;
};

// The 16 bytes of a plain format: tag 1 for PCM, 3 for floats.
LittleEndianBytes PlainFormatBody(const WavFormat& format);

// The 40 bytes of an extensible format, mono announced as front centre.
LittleEndianBytes ExtensibleFormatBody(const WavFormat& format);

// Opens "RIFF" "WAVE", writes "fmt " with `format_body` and opens "data"; samples follow.
void BeginWav(RiffChunkWriter& file, std::span<const std::byte> format_body);

// "cue " and "LIST" "adtl": labels, then markers, numbered through from 0. Nothing when there are
// none.
void WriteCuesAndRegions(RiffChunkWriter& file, std::span<const WavLabel> labels,
                         std::span<const WavMarker> markers, std::int32_t block_align);

// "LIST" "INFO", which is written also when every text is empty.
void WriteInfo(RiffChunkWriter& file, const WavMetaData& meta_data);

void WriteAcid(RiffChunkWriter& file, const WavAcidData& acid);

// Everything behind the samples, in its order; "data" has been ended.
void WriteAnnotations(RiffChunkWriter& file, const WavAnnotations& annotations,
                      std::int32_t block_align);

}  // namespace marlinda
