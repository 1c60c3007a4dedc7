#include "edit/piece_plot.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "core/com_ptr.h"
#include "core/samples/extremes.h"
#include "core/samples/peak_summary.h"
#include "edit/waveplot.h"

namespace marlinda {
namespace {

// From this many frames a column on, precomputed peaks are read in the place of samples.
constexpr __int64 kFramesPerColumnOfPeaks = 256;

// Floats that one read of a source asks for at most, so that memory does not grow without bound
// with the piece. A picture as wide as a screen takes one read.
constexpr std::size_t kSamplesPerRead = std::size_t{1} << 24;
constexpr std::size_t kPeakFloatsPerRead = std::size_t{1} << 22;
// Floats that no array could hold, 4 GiB of them: a piece with that many peaks is not drawn, since
// reading them would take the caller's patience in the place of its memory.
constexpr std::int64_t kMostPeakFloats = std::int64_t{1} << 30;

// From this many peaks a column on, a summary of them costs less than they do.
constexpr __int64 kPeaksPerColumnOfSummary = 64;

// Reads `count` records of `unit` floats in blocks and passes each on; false as soon as one read
// fails. `read` takes the record to start from and the array to fill. At least one read is made.
template <class Read, class Columns>
bool ReadInBlocks(__int64 count, std::size_t unit, std::size_t most_floats,
                  ScratchCache& scratch_keeper, Columns& columns, Read&& read) {
  const auto most = static_cast<__int64>(std::max<std::size_t>(1, most_floats / unit));
  ScratchLease scratch(scratch_keeper);
  __int64 done = 0;
  do {
    const __int64 block = std::min(most, count - done);
    if (FAILED(read(done, scratch->Prepare(static_cast<std::size_t>(block) * unit)))) return false;
    columns.Add(scratch->samples());
    done += block;
  } while (done < count);
  return true;
}

// Closes on every way out what has been opened.
class OpenedDevice {
 public:
  explicit OpenedDevice(IAudioReader* reader) : reader_(reader) {}
  ~OpenedDevice() { reader_->CloseDevice(); }
  OpenedDevice(const OpenedDevice&) = delete;
  OpenedDevice& operator=(const OpenedDevice&) = delete;

 private:
  IAudioReader* reader_;
};

bool DrawSamples(IAudioReader* source, const CSection& piece, std::size_t channels, __int64 columns,
                 std::span<float> pairs, ScratchCache& scratch_keeper) {
  if (FAILED(source->OpenDevice())) return false;
  const OpenedDevice opened(source);
  SampleColumns drawn(pairs, channels, columns, piece.Length());
  return ReadInBlocks(piece.Length(), channels, kSamplesPerRead, scratch_keeper, drawn,
                      [&](__int64 frame, SAFEARRAY* array) {
                        return source->ReadAudio(piece.begin + frame, array);
                      });
}

// Draws what each column's peaks come to. One peak a column in their place gives the same picture.
bool DrawSummary(IPeakReader* reader, __int64 first, __int64 count, std::size_t channels,
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
  PeakColumns(pairs, channels, columns, columns).Add(peaks);
  return true;
}

bool DrawPeaks(IAudioReader* source, const CSection& piece, std::size_t channels, __int64 columns,
               std::span<float> pairs, ScratchCache& scratch_keeper) {
  const auto reader = TryQuery<IPeakReader>(source);
  LONG frames_per_peak = 0;
  if (!reader || FAILED(reader->GetSamplesPerPeak(&frames_per_peak)) || frames_per_peak <= 0) {
    return false;
  }
  const __int64 count = piece.Length() / frames_per_peak;
  const __int64 first = piece.begin / frames_per_peak;
  if (count / columns >= kPeaksPerColumnOfSummary &&
      DrawSummary(reader.Get(), first, count, channels, columns, pairs)) {
    return true;
  }
  if (count > kMostPeakFloats / static_cast<std::int64_t>(2 * channels)) return false;
  PeakColumns drawn(pairs, channels, columns, count);
  return ReadInBlocks(
      count, 2 * channels, kPeakFloatsPerRead, scratch_keeper, drawn,
      [&](__int64 peak, SAFEARRAY* array) { return reader->ReadPeaks(first + peak, array); });
}

}  // namespace

void DrawPiece(IAudioReader* source, const CSection& piece, std::size_t channels, __int64 columns,
               std::span<float> pairs, ScratchCache& scratch_keeper) {
  if (source == nullptr) {
    std::ranges::fill(pairs, 0.0F);
    return;
  }
  // Drawn aside, because a read that fails halfway must leave nothing behind.
  std::vector<float> aside(pairs.begin(), pairs.end());
  const bool few_frames = piece.Length() < columns * kFramesPerColumnOfPeaks;
  const bool complete = few_frames
                            ? DrawSamples(source, piece, channels, columns, aside, scratch_keeper)
                            : DrawPeaks(source, piece, channels, columns, aside, scratch_keeper);
  if (complete) std::copy_n(aside.data(), aside.size(), pairs.data());
}

}  // namespace marlinda
