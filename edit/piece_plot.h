// Draws one piece of a document, from its source's samples or peaks, into the waveform overview.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/com_ptr.h"
#include "core/sample_array.h"
#include "core/samples/extremes.h"
#include "core/samples/peak_summary.h"
#include "core/section.h"
#include "edit/waveplot.h"

namespace marlinda {

// From this many frames per column on, the overview is drawn from peaks instead of samples.
inline constexpr __int64 kFramesPerColumnOfPeaks = 256;

// The maximum number of floats per read. The limit keeps memory small for long pieces. An overview
// as wide as a screen usually needs only one read.
inline constexpr std::size_t kMaxSamplesPerRead = std::size_t{1} << 24;
inline constexpr std::size_t kMaxPeakFloatsPerRead = std::size_t{1} << 22;
// Without IPeakSummary, a piece whose peaks have more floats than this (4 GiB) is not drawn,
// because reading so many peaks would take too long.
inline constexpr std::int64_t kMaxPeakFloats = std::int64_t{1} << 30;

// With this many peaks per column or more, calling IPeakSummary costs less than reading the peaks.
inline constexpr __int64 kPeaksPerColumnOfSummary = 64;

// Reads `count` records of `unit` floats in one or more blocks. Returns false if a read fails.
// read(first, array) fills the array from record `first` on. draw(first, floats) draws the array.
template <class Read, class Draw>
bool ReadInBlocks(__int64 count, std::size_t unit, std::size_t max_floats,
                  ScratchCache& scratch_keeper, Read&& read, Draw&& draw) {
  const auto max_records = static_cast<__int64>(std::max<std::size_t>(1, max_floats / unit));
  ScratchLease scratch(scratch_keeper);
  __int64 first = 0;
  do {
    const __int64 block = std::min(max_records, count - first);
    if (FAILED(read(first, scratch->Prepare(static_cast<std::size_t>(block) * unit)))) return false;
    draw(first, scratch->samples());
    first += block;
  } while (first < count);
  return true;
}

struct CloseDevice {
  void operator()(IAudioReader* reader) const { reader->CloseDevice(); }
};

inline bool DrawFromSamples(IAudioReader* source, const CSection& piece, std::size_t channels,
                            __int64 columns, std::span<float> pairs, ScratchCache& scratch_keeper) {
  if (FAILED(source->OpenDevice())) return false;
  const std::unique_ptr<IAudioReader, CloseDevice> opened(source);
  return ReadInBlocks(
      piece.Length(), channels, kMaxSamplesPerRead, scratch_keeper,
      [&](__int64 frame, SAFEARRAY* array) {
        return source->ReadAudio(piece.begin + frame, array);
      },
      [&](__int64 frame, std::span<const float> samples) {
        DrawSamples(pairs, channels, columns, piece.Length(), frame, samples);
      });
}

// Draws one peak per column, from IPeakSummary. Reading all peaks would draw the same picture.
inline bool DrawFromSummary(IPeakReader* reader, __int64 first, __int64 count, std::size_t channels,
                            __int64 columns, std::span<float> pairs) {
  const auto summary = TryQuery<IPeakSummary>(reader);
  if (!summary) return false;
  std::vector<std::int64_t> ends(pairs.size() / (2 * channels));
  for (std::size_t column = 0; column < ends.size(); ++column) {
    ends[column] =
        SaturatingAdd(first, FirstOfColumn(static_cast<__int64>(column) + 1, columns, count));
  }
  std::vector<float> peaks(pairs.size());
  for (std::size_t i = 0; i + 1 < peaks.size(); i += 2) {
    peaks[i] = kNoLowest;
    peaks[i + 1] = kNoHighest;
  }
  if (FAILED(summary->SummarizePeaks(reader, channels, first, ends, peaks))) return false;
  DrawPeaks(pairs, channels, columns, columns, 0, peaks);
  return true;
}

inline bool DrawFromPeaks(IAudioReader* source, const CSection& piece, std::size_t channels,
                          __int64 columns, std::span<float> pairs, ScratchCache& scratch_keeper) {
  const auto reader = TryQuery<IPeakReader>(source);
  LONG frames_per_peak = 0;
  if (!reader || FAILED(reader->GetSamplesPerPeak(&frames_per_peak)) || frames_per_peak <= 0) {
    return false;
  }
  const __int64 count = piece.Length() / frames_per_peak;
  const __int64 first = piece.begin / frames_per_peak;
  if (count / columns >= kPeaksPerColumnOfSummary &&
      DrawFromSummary(reader.Get(), first, count, channels, columns, pairs)) {
    return true;
  }
  if (count > kMaxPeakFloats / static_cast<std::int64_t>(2 * channels)) return false;
  return ReadInBlocks(
      count, 2 * channels, kMaxPeakFloatsPerRead, scratch_keeper,
      [&](__int64 peak, SAFEARRAY* array) { return reader->ReadPeaks(first + peak, array); },
      [&](__int64 peak, std::span<const float> peaks) {
        DrawPeaks(pairs, channels, columns, count, peak, peaks);
      });
}

// `piece` is the range in the source, `columns` its width in pixel columns. `pairs` receives a
// minimum and a maximum per channel for each column. Columns beyond the end of `pairs` are not
// drawn. The pairs stay unchanged if the source cannot be opened or read, or if the piece must be
// drawn from peaks and the source has none. A null source is silence.
inline void DrawPiece(IAudioReader* source, const CSection& piece, std::size_t channels,
                      __int64 columns, std::span<float> pairs, ScratchCache& scratch_keeper) {
  if (source == nullptr) {
    std::ranges::fill(pairs, 0.0F);
    return;
  }
  // Draws into a copy, because a read that fails halfway must leave the pairs unchanged.
  std::vector<float> aside(pairs.begin(), pairs.end());
  const bool few_frames = piece.Length() < columns * kFramesPerColumnOfPeaks;
  const bool complete =
      few_frames ? DrawFromSamples(source, piece, channels, columns, aside, scratch_keeper)
                 : DrawFromPeaks(source, piece, channels, columns, aside, scratch_keeper);
  if (complete) std::copy_n(aside.data(), aside.size(), pairs.data());
}

}  // namespace marlinda
