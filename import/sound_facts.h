// What the bytes of a sound file tell before anything is decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "import/meta_data.h"
#include "import/pcm_format.h"

namespace marlinda {

// Positions are frames; names are the bytes that the file holds.
struct SoundLabel {
  std::string name;
  std::int64_t position = 0;

  friend bool operator==(const SoundLabel&, const SoundLabel&) = default;
};

struct SoundMarker {
  std::string name;
  std::int64_t begin = 0;
  std::int64_t end = 0;

  friend bool operator==(const SoundMarker&, const SoundMarker&) = default;
};

struct LoopData {
  std::int32_t root_note = 0;
  std::int16_t meter_beats = 0;
  std::int16_t meter_delimiter = 0;
  std::int32_t beat_count = 0;
  float tempo = 0;

  friend bool operator==(const LoopData&, const LoopData&) = default;
};

// How a file keeps each sample: as the format says, or in one byte of a logarithmic scale.
enum class Coding { kLinear, kMuLaw, kALaw };

// Samples somewhere in a file that need no decoder. `frames` counts what is really there.
struct PcmData {
  PcmFormat format = {};  // of the samples as they are read
  Coding coding = Coding::kLinear;
  bool big_endian = false;
  bool signed_bytes = false;  // 8-bit samples are signed, where a wave has them around 128
  std::uint64_t offset = 0;
  std::int64_t frames = 0;

  std::size_t SampleBytes() const noexcept {
    return coding == Coding::kLinear ? static_cast<std::size_t>(format.bits / 8) : 1;
  }
  // In the file.
  std::size_t FrameBytes() const noexcept {
    return static_cast<std::size_t>(format.channels) * SampleBytes();
  }
};

struct SoundFacts {
  // Where the samples are; nothing when they are compressed or the file is of another kind.
  std::optional<PcmData> pcm;
  // Nothing should try to decode this: the header contradicts itself or promises no sound, or the
  // file is one that another filter of the engine reads.
  bool refused = false;

  std::vector<SoundLabel> labels;
  std::vector<SoundMarker> markers;
  std::optional<LoopData> loop;
  MetaData meta_data;
  // The texts of `meta_data` are UTF-8; otherwise they are the bytes that the file holds.
  bool utf8 = false;
};

}  // namespace marlinda
