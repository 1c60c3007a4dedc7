// Waveform overview: the lowest and the highest sample of each pixel column and channel, from
// samples or from precomputed peaks.
//
// Columns are (minimum, maximum) pairs, one for each channel, column after column. A piece of the
// document has its own columns 0 to `columns` - 1. The span of pairs may be shorter: columns past
// it are not drawn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// value * numerator / denominator, truncated; no overflow on the way, and the largest number where
// the result does not fit. None is negative, the denominator is positive.
std::int64_t Scale(std::int64_t value, std::int64_t numerator, std::int64_t denominator) noexcept;

// The first frame or peak of a column, where `count` of them are spread over `columns` so that the
// i-th belongs to column i * columns / count: column * count / columns, rounded up.
std::int64_t FirstOfColumn(std::int64_t column, std::int64_t columns, std::int64_t count) noexcept;

// Draws the columns of a piece from its samples, whole frames. The samples may come in blocks, one
// call after another; `first` is the frame of the piece at which a block begins, `frames` the
// length of the piece. Where every column has a frame, columns start from +1 and -1, so a column
// whose samples all lie above full scale still begins at full scale.
void DrawSamples(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                 std::int64_t frames, std::int64_t first, std::span<const float> samples) noexcept;

// Draws the columns of a piece from `count` peaks, blocks of them as above. A column starts from
// its left neighbour with minimum and maximum exchanged. This links the two, so that the drawn
// waveform has no gap between them. With fewer peaks than columns the neighbour may be one that no
// peak belongs to; it then counts as the host left it.
void DrawPeaks(std::span<float> pairs, std::size_t channels, std::int64_t columns,
               std::int64_t count, std::int64_t first, std::span<const float> peaks) noexcept;

}  // namespace marlinda
