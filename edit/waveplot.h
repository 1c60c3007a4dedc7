// Waveform overview: the lowest and highest sample of each pixel column and channel, from samples
// or precomputed peaks.
//
// Each column has a pair (minimum, maximum) for each channel. A piece of the document has its own
// columns, 0 to `columns` - 1. Columns beyond the end of `pairs` are not drawn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// Returns value * numerator / denominator, truncated, without intermediate overflow. Saturates at
// the largest number. No argument may be negative, and the denominator must be positive.
std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept;

// The first frame or peak of a column: column * count / columns, rounded up. Item i of `count`
// belongs to column i * columns / count.
std::int64_t FirstOfColumn(std::int64_t column, std::int64_t columns, std::int64_t count) noexcept;

// Draws the columns of a piece from whole frames. The caller may pass consecutive blocks of
// frames. A block begins at frame `first` of the piece, whose length is `frames`. If every column
// has a frame, each column's minimum starts at +1 and its maximum at -1. So samples that all lie
// above +1 have the minimum +1.
void DrawSamples(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                 std::int64_t frames, std::int64_t first, std::span<const float> samples) noexcept;

// Draws the columns of a piece from `count` peaks, in blocks as above. Each column's minimum is
// initialised to its left neighbour's maximum, and its maximum to the neighbour's minimum, so that
// the waveform has no gap. With fewer peaks than columns, the left neighbour may lack peaks. Such a
// neighbour still has the host's values.
void DrawPeaks(std::span<float> pairs, std::size_t channels, std::int64_t columns,
               std::int64_t count, std::int64_t first, std::span<const float> peaks) noexcept;

}  // namespace marlinda
