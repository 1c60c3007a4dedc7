// SoundFileInfo: what the bytes of a sound file say before anything is decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/records.h"
#include "import/pcm_format.h"

namespace marlinda {

// How a file keeps its samples: as the format says, in one byte of a logarithmic scale, or in
// blocks with four bits a sample.
enum class Coding { kLinear, kMuLaw, kALaw, kImaAdpcm, kMsAdpcm };

// A part of a file, which ends within it.
struct ByteRange {
  std::uint64_t offset = 0;
  std::uint64_t bytes = 0;
};

// Samples of a file that ReadSamples reads. `frames` counts frames within the file.
struct PcmData {
  PcmFormat format = {};  // of the samples as they are read
  Coding coding = Coding::kLinear;
  bool big_endian = false;
  bool signed_bytes = false;  // 8-bit samples are signed, where a wave has them around 128
  std::uint64_t offset = 0;
  std::int64_t frames = 0;
  // Of the codings in blocks. The last block of a file may be shorter.
  std::size_t block_bytes = 0;
  std::size_t block_frames = 0;

  bool IsInBlocks() const noexcept { return block_bytes != 0; }
  // In the file. Not for codings in blocks.
  std::size_t SampleBytes() const noexcept {
    return coding == Coding::kLinear ? static_cast<std::size_t>(format.bits / 8) : 1;
  }
  std::size_t FrameBytes() const noexcept {
    return static_cast<std::size_t>(format.channels) * SampleBytes();
  }
  // In the file, on average.
  double BytesPerFrame() const noexcept {
    return IsInBlocks() ? static_cast<double>(block_bytes) / static_cast<double>(block_frames)
                        : static_cast<double>(FrameBytes());
  }
};

// At most one of `pcm` and `mpeg` is there. A file that has neither and is not refused is for the
// filters of the system.
struct SoundFileInfo {
  std::optional<PcmData> pcm;
  // MPEG audio, for MpegStream.
  std::optional<ByteRange> mpeg;
  // Not to be decoded: the file is of another kind, its header contradicts itself or promises no
  // sound.
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
