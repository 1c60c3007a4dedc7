// SoundFileInfo: what the bytes of a sound file say before anything is decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/records.h"
#include "import/pcm_format.h"

namespace marlinda {

// How a file keeps each sample: as the format says, or in one byte of a logarithmic scale.
enum class Coding { kLinear, kMuLaw, kALaw };

// Samples of a file that need no decoder. `frames` counts whole frames within the file.
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

struct SoundFileInfo {
  // Where the samples are; nothing when they are compressed or the file is of another kind.
  std::optional<PcmData> pcm;
  // Not to be decoded: the header contradicts itself or promises no sound, or another filter of the
  // engine reads such files.
  bool refused = false;

  // Names are the bytes that the file holds.
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;
  std::optional<AcidData> acid;
  Tags tags;
  // The tags are UTF-8; otherwise they are the bytes that the file holds.
  bool utf8 = false;
};

}  // namespace marlinda
