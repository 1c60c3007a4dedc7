// Imported audio in another sample rate or number of channels.
#pragma once

#include "host/engine.h"

namespace marlinda {

// Throws a HostError when Converter.dll is missing or cannot convert between the formats.
void RequireConverter(const AudioFormat& from, const AudioFormat& to);

// Positions in frames of one sample rate, in those of another.
Annotations AtRate(Annotations annotations, LONG from, LONG to);

// Converts the audio into a pool of its own; audio in the format `to` is returned as it is.
ImportedAudio ConvertAudio(const ImportedAudio& audio, const AudioFormat& to,
                           const Console& console);

}  // namespace marlinda
