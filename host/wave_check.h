// Checks a WAV file that the engine wrote. The export does not report failed writes, so a full disk
// shows only in the file.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>

namespace marlinda {

struct WaveFileFacts {
  std::int64_t bytes = 0;       // size of the whole file
  std::int64_t data_bytes = 0;  // size of the data chunk, including padding
  int block_align = 0;          // bytes per frame; 0 for a compressed file
};

// Returns the file's facts if its chunks fill it exactly and include a format and a data chunk,
// otherwise nothing.
std::optional<WaveFileFacts> ExamineWaveFile(std::istream& file);

// True if the data chunk holds `frames` frames and nothing else but padding to four bytes.
bool HoldsFrames(const WaveFileFacts& facts, std::int64_t frames);

// True if the frames fit in a WAV file, whose sizes are 32-bit numbers, and leave ample room for
// other chunks.
bool FitsWaveFile(std::int64_t frames, int channels, int bits);

}  // namespace marlinda
