// Recognises a sound file by its bytes alone, and reads samples that need no decoder with a memory.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Files of other kinds than WAV, AIFF, AU, MPEG audio, Windows Media, AVI and MPEG program streams
// are refused: the filters of the system hang on some of them.
SoundFileInfo ExamineSound(ByteSource& file);

// Reads frames from `first` on as floats, as many as `samples` takes, and returns how many of these
// samples there were, whole frames: fewer at the end of the file. `scratch` is for the bytes.
std::size_t ReadSamples(ByteSource& file, const PcmData& pcm, std::int64_t first,
                        std::span<float> samples, std::vector<std::byte>& scratch);

}  // namespace marlinda
