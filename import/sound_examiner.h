// Recognises sound files by their bytes, and reads linear, logarithmic and ADPCM samples.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Refuses all files except WAV, AIFF, AU, MPEG audio, Windows Media, AVI and MPEG program streams,
// because the system's filters hang on some other files.
SoundFileInfo ExamineSound(ByteSource& file);

// Fills `samples` with whole frames from `first` on, as floats. Returns the number of samples,
// which is smaller at the end of the file. `scratch` is a reusable buffer.
std::size_t ReadSamples(ByteSource& file, const PcmData& pcm, std::int64_t first,
                        std::span<float> samples, std::vector<std::byte>& scratch);

}  // namespace marlinda
