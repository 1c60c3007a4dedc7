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

// Draws the columns of a piece of `frames` frames. The caller passes the piece's samples in one or
// more consecutive blocks of whole frames. `first` is the piece's frame at which `samples` begins.
// If there are at least as many frames as columns, each column's minimum starts at +1 and its
// maximum at -1. So a column whose samples all exceed +1 has the minimum +1.
void DrawSamples(std::span<float> pairs, std::size_t channels, std::int64_t columns,
                 std::int64_t frames, std::int64_t first, std::span<const float> samples) noexcept;

// Draws the columns of a piece from `count` peaks, in blocks as in DrawSamples. Initialises each
// minimum with the left neighbour's maximum, and each maximum with the neighbour's minimum, so that
// the waveform has no gap. With fewer peaks than columns, some columns have no peaks. They stay as
// the caller passed them in `pairs`.
void DrawPeaks(std::span<float> pairs, std::size_t channels, std::int64_t columns,
               std::int64_t count, std::int64_t first, std::span<const float> peaks) noexcept;

}  // namespace marlinda
