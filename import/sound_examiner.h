// Recognises a sound file by its bytes alone, and reads its uncompressed samples.
#pragma once

#include "import/byte_source.h"
#include "import/sound_file_info.h"

namespace marlinda {

// Of a file of an unknown kind the info are empty, but for the tags that it may have.
SoundFileInfo ExamineSound(ByteSource& file);

// Reads frames from `first` on as floats, as many as `samples` takes, and returns how many of these
// samples there were, whole frames: fewer at the end of the file. `scratch` is for the bytes.
std::size_t ReadSamples(ByteSource& file, const PcmData& pcm, std::int64_t first,
                        std::span<float> samples, std::vector<std::byte>& scratch);

}  // namespace marlinda
