// Imported audio in another sample rate or number of channels.
#pragma once

#include "host/engine.h"

namespace marlinda {

// The format of an output; that of the input where nothing else is asked for.
AudioFormat TargetFormat(const AudioFormat& from, std::optional<int> rate,
                         std::optional<int> channels);

// Throws a HostError when Converter.dll is missing or cannot convert between the formats.
void RequireConverter(const AudioFormat& from, const AudioFormat& to);

// Positions in frames of one sample rate, in those of another.
Annotations AtRate(Annotations annotations, LONG from, LONG to);

// Converts the audio into a pool of its own; audio in the format `to` is returned as it is.
ImportedAudio ConvertAudio(const ImportedAudio& audio, const AudioFormat& to,
                           const Console& console);

}  // namespace marlinda
