// Judges a WAV file that the engine wrote. The export reports no failed write, so the file itself
// is the only witness of a disk that ran full.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>

namespace marlinda {

struct WaveFileFacts {
  std::int64_t bytes = 0;       // of the whole file
  std::int64_t data_bytes = 0;  // of the data chunk, its padding included
  int block_align = 0;          // bytes per frame; 0 of a compressed file
};

// What the file says about itself; nothing unless its chunks fill it exactly, with a format and a
// data chunk among them.
std::optional<WaveFileFacts> ExamineWaveFile(std::istream& file);

// True when the data chunk holds `frames` frames and at most its padding to four bytes beside them.
bool HoldsFrames(const WaveFileFacts& facts, std::int64_t frames);

// True when so many frames fit in a WAV file, whose sizes are 32-bit numbers, with ample room left
// for the chunks beside the audio.
bool FitsWaveFile(std::int64_t frames, int channels, int bits);

}  // namespace marlinda
