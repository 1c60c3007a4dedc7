// Draws one piece of a document into the waveform overview, from its source's samples or peaks.
#pragma once

#include <marlinda.h>

#include <span>

#include "core/sample_array.h"
#include "core/section.h"

namespace marlinda {

// `piece` is the range in the source, `columns` its width in pixel columns, `pairs` those of the
// columns that lie in the host's array. The pairs stay unchanged when the source cannot be opened
// or read, or has no peaks where peaks are needed. A null source is silence.
void DrawPiece(IAudioReader* source, const CSection& piece, std::size_t channels, __int64 columns,
               std::span<float> pairs, ScratchCache& scratch_keeper);

}  // namespace marlinda
