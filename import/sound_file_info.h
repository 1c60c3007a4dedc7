// SoundFileInfo: the facts about a sound file that are known without decoding it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/records.h"
#include "import/pcm_format.h"

namespace marlinda {

// How a file stores a sample: directly, in one logarithmic byte, or in four bits of an ADPCM block.
enum class Coding { kLinear, kMuLaw, kALaw, kImaAdpcm, kMsAdpcm };

// A range of bytes that lies within the file.
struct ByteRange {
  std::uint64_t offset = 0;
  std::uint64_t bytes = 0;
};

// Samples that ReadSamples can read. `frames` counts only frames that are really in the file.
struct PcmData {
  PcmFormat format = {};  // after decoding
  Coding coding = Coding::kLinear;
  bool big_endian = false;
  bool signed_bytes = false;  // 8-bit samples are signed, unlike in WAV files
  std::uint64_t offset = 0;
  std::int64_t frames = 0;
  // Only for ADPCM. The last block of a file may be shorter.
  std::size_t block_bytes = 0;
  std::size_t block_frames = 0;

  bool IsInBlocks() const noexcept { return block_bytes != 0; }
  // Bytes of a sample in the file. Not for ADPCM.
  std::size_t SampleBytes() const noexcept {
    return coding == Coding::kLinear ? static_cast<std::size_t>(format.bits / 8) : 1;
  }
  std::size_t FrameBytes() const noexcept {
    return static_cast<std::size_t>(format.channels) * SampleBytes();
  }
  // The number of bytes that a frame takes in the file: an average if the coding has blocks.
  double BytesPerFrame() const noexcept {
    return IsInBlocks() ? static_cast<double>(block_bytes) / static_cast<double>(block_frames)
                        : static_cast<double>(FrameBytes());
  }
};

// At most one of `pcm` and `mpeg` is set. If neither is set and the file is not refused, the
// system's filters decode it.
struct SoundFileInfo {
  std::optional<PcmData> pcm;
  // The range of MPEG audio, which MpegStream decodes.
  std::optional<ByteRange> mpeg;
  // True if the file is of no supported kind, contradicts itself or has no sound.
  bool refused = false;

  // Names are unconverted bytes of the file.
  std::vector<Label> labels;
  std::vector<SectionMarker> markers;
  std::optional<AcidData> acid;
  Tags tags;
  // True if the tags are UTF-8; otherwise they are unconverted bytes of the file.
  bool utf8 = false;
};

}  // namespace marlinda
