// Waveform overview: the lowest and highest sample of each pixel column and channel, from samples
// or precomputed peaks.
//
// Columns are (minimum, maximum) pairs, one for each channel, column after column. A piece of the
// document has its own columns, 0 to `columns` - 1. The span of pairs may be shorter: later columns
// are not drawn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// value * numerator / denominator, truncated, without intermediate overflow. Saturates at the
// largest number. No argument is negative, and the denominator is positive.
std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept;

// The first frame or peak of a column: column * count / columns, rounded up. Item i of `count`
// belongs to column i * columns / count.
std::int64_t FirstOfColumn(std::int64_t column, std::int64_t columns, std::int64_t count) noexcept;

// Draws the columns of a piece from its samples, whole frames. The samples may come in consecutive
// blocks: `first` is the piece's frame at which a block begins, `frames` the length of the piece.
// If every column has a frame, a column's minimum starts at +1 and its maximum at -1. So the
// minimum of samples that all lie above +1 is +1.
void DrawSamples(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                 std::int64_t frames, std::int64_t first, std::span<const float> samples) noexcept;

// Draws the columns of a piece from `count` peaks, in blocks as above. A column starts from its
// left neighbour with minimum and maximum exchanged, so that the waveform has no gap between them.
// With fewer peaks than columns, the left neighbour may be a column without peaks, which has the
// host's values.
void DrawPeaks(std::span<float> pairs, std::size_t channels, std::int64_t columns,
               std::int64_t count, std::int64_t first, std::span<const float> peaks) noexcept;

}  // namespace marlinda
