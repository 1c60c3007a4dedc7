// SourceFeed: moves samples from a source through the converter into the queue. Every successful
// set-up of a CAudioConnector creates a new SourceFeed.
#pragma once

#include <converter.h>
#include <marlinda.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

#include "core/com_ptr.h"
#include "core/constants.h"
#include "core/sample_array.h"
#include "core/sample_count.h"
#include "task/paced_queue.h"

namespace marlinda {

struct StreamFormat {
  LONG rate = 0;
  SHORT channels = 0;

  bool IsKnown() const noexcept { return rate > 0 && channels > 0; }
  bool operator==(const StreamFormat&) const = default;
};

inline constexpr __int64 kFramesPerPull = 65535;
// Give up on a reader after this many blocks that add nothing to the queue.
inline constexpr int kMaxEmptyBlocks = 10;
// Give up flushing a converter after this many silent blocks. They have more frames than a
// converter holds back.
inline constexpr int kMaxSilentBlocks = 16;
inline constexpr std::size_t kSilentFrames = 4096;

// Destroys an array that a callee made.
struct DestroyArray {
  void operator()(SAFEARRAY* array) const noexcept { SafeArrayDestroy(array); }
};

inline ComPtr<IFormatConverter> CreateConverter(const StreamFormat& source,
                                                const StreamFormat& target) {
  ComPtr<IFormatConverter> converter;
  if (FAILED(CreateInstance(CLSID_CFormatConverter, converter)) ||
      FAILED(converter->SetUp(source.rate, target.rate, source.channels, target.channels,
                              kConverterMode))) {
    return {};
  }
  return converter;
}

// Shared by the host's thread and the threads of the two filters. Holds no reference to a filter,
// because filters belong to the host's apartment and their reference counts might not be
// thread-safe.
class SourceFeed {
 public:
  // A queue without a source, for the time before the first set-up.
  SourceFeed() = default;
  // `reader` is borrowed until DetachReader. Null means that an import filter writes the samples.
  SourceFeed(IAudioReader* reader, const StreamFormat& target)
      : target_(target), pulls_(reader != nullptr), reader_(reader) {}

  const StreamFormat& target() const noexcept { return target_; }
  PacedQueue& queue() noexcept { return queue_; }

  // Called on the host's thread. Sets the source's format and length in frames. Creates the
  // converter if the format is known and differs from the target. Without a converter, samples pass
  // unchanged.
  void SetSource(const StreamFormat& format, __int64 frames) {
    {
      const std::lock_guard lock(mutex_);
      source_frames_ = frames;
      if (!format.IsKnown() || format == source_) return;
      source_ = format;
    }
    ComPtr<IFormatConverter> converter;
    if (target_.IsKnown() && format != target_) converter = CreateConverter(format, target_);
    const std::lock_guard lock(mutex_);
    converter_.Swap(converter);
  }
  // Called on the host's thread. Sets whether the import task ran at the last poll.
  void SetImportRuns(bool runs) noexcept { import_runs_ = runs; }
  // Called on the host's thread. Waits for the current read of the reader to end and prevents
  // further reads.
  void DetachReader() {
    const std::lock_guard lock(mutex_);
    reader_ = nullptr;
  }

  // Called on the export's thread. If the source has stopped, fills the rest of the array with 0.0
  // and returns S_FALSE.
  HRESULT Read(SAFEARRAY* array) {
    SampleArrayView view;
    const HRESULT hr = view.Lock(array);
    if (FAILED(hr)) return hr;
    std::span<float> rest = view.samples();
    int timeouts = 0;
    // Reads in pieces, because the queue never holds enough for a very large read.
    while (!rest.empty()) {
      const std::span<float> piece = rest.first(std::min(rest.size(), PacedQueue::kMaxQueued));
      rest = rest.subspan(piece.size());
      const bool complete =
          pulls_ ? PullSamples(piece.size()) : AwaitSamples(piece.size(), timeouts);
      queue_.Take(piece);
      if (!complete) {
        std::ranges::fill(rest, 0.0F);
        return S_FALSE;
      }
    }
    return S_OK;
  }
  // Called on the import's thread. Waits until the queue has room. Drops the block if the queue is
  // interrupted.
  HRESULT Write(SAFEARRAY* array) {
    SampleArrayView view;
    const HRESULT hr = view.Lock(array);
    if (FAILED(hr)) return hr;
    if (!queue_.AwaitRoom()) return S_OK;
    const std::lock_guard lock(mutex_);
    Push(array, view.samples());
    return S_OK;
  }

 private:
  // PullSamples and AwaitSamples return false if a source ends before `wanted` samples are queued.
  bool PullSamples(std::size_t wanted) {
    const std::lock_guard lock(mutex_);
    for (int empty_blocks = 0; queue_.Count() < wanted;) {
      if (reader_ == nullptr || !source_.IsKnown() || empty_blocks == kMaxEmptyBlocks) return false;
      const std::size_t before = queue_.Count();
      PullBlock();
      empty_blocks = queue_.Count() > before ? 0 : empty_blocks + 1;
    }
    return true;
  }
  bool AwaitSamples(std::size_t wanted, int& timeouts) {
    // Once the import has ended and a read got too few samples, further reads do not wait.
    const bool waits = import_runs_ || !gave_up_;
    const bool complete = waits ? queue_.AwaitSamples(wanted, timeouts) : queue_.Count() >= wanted;
    gave_up_ = !complete;
    if (complete || import_runs_) return complete;
    // If the import ended before its reported length, silence flushes the last frames from the
    // converter.
    const std::lock_guard lock(mutex_);
    PushSilence();
    return false;
  }

  // Call the methods from here on with `mutex_` held.
  void PullBlock() {
    if (!block_) block_ = std::make_unique<SampleArray>();
    SAFEARRAY* const array = block_->Prepare(static_cast<std::size_t>(kFramesPerPull) *
                                             static_cast<std::size_t>(source_.channels));
    // The block stays silent if the reader fails, so the result is ignored.
    reader_->ReadAudio(read_position_, array);
    SilenceBeyondEnd(block_->samples(), read_position_);
    read_position_ += kFramesPerPull;
    Push(array, block_->samples());
  }
  // Silences samples beyond the end of the source, such as the next take of a pool. The converter
  // mixes neighbouring frames, so these samples would be heard in the last frames of the source.
  // Does nothing without a converter.
  void SilenceBeyondEnd(std::span<float> samples, __int64 first_frame) const {
    if (!converter_ || source_frames_ <= 0) return;
    const __int64 left = std::clamp<__int64>(source_frames_ - first_frame, 0, kFramesPerPull);
    const auto kept = static_cast<std::size_t>(left) * static_cast<std::size_t>(source_.channels);
    std::ranges::fill(samples.subspan(std::min(kept, samples.size())), 0.0F);
  }
  void Push(SAFEARRAY* array, std::span<const float> samples) {
    if (!converter_) return queue_.Put(samples);
    Convert(array);
    samples_in_ += static_cast<__int64>(samples.size());
    if (source_frames_ <= 0 || samples_in_ / source_.channels < source_frames_) return;
    // The source is complete, but the converter still holds its last frames.
    const __int64 frames = ConvertSampleCount(source_frames_, source_.rate, target_.rate);
    while (samples_out_ / target_.channels < frames && PushSilence()) {
    }
  }
  void Convert(SAFEARRAY* array) {
    if (FAILED(converter_->Convert(array))) return;
    SAFEARRAY* received = nullptr;
    const HRESULT hr = converter_->GetOutput(&received);
    const std::unique_ptr<SAFEARRAY, DestroyArray> converted(received);
    SampleArrayView view;  // unlocks before the array is destroyed
    if (FAILED(hr) || FAILED(view.Lock(converted.get()))) return;
    queue_.Put(view.samples());
    samples_out_ += static_cast<__int64>(view.samples().size());
  }
  // Passes a block of silence to the converter to flush its last frames. Returns false without a
  // converter or after kMaxSilentBlocks blocks.
  bool PushSilence() {
    if (!converter_ || silent_blocks_ == kMaxSilentBlocks) return false;
    ++silent_blocks_;
    const SampleArray silence(kSilentFrames * static_cast<std::size_t>(source_.channels));
    Convert(silence.get());
    return true;
  }

  const StreamFormat target_{};
  const bool pulls_ = false;  // true for a reader, false for an import filter
  PacedQueue queue_;
  std::atomic<bool> import_runs_ = true;
  std::atomic<bool> gave_up_ = false;  // the last read got too few samples

  std::mutex mutex_;  // guards the members below
  IAudioReader* reader_ = nullptr;
  std::unique_ptr<SampleArray> block_;
  __int64 read_position_ = 0;
  StreamFormat source_;
  __int64 source_frames_ = 0;
  ComPtr<IFormatConverter> converter_;
  __int64 samples_in_ = 0;
  __int64 samples_out_ = 0;  // samples that the converter has delivered
  int silent_blocks_ = 0;
};

}  // namespace marlinda
