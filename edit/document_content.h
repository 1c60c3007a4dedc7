// DocumentContent: holds and reads the content of a document. It is separate from CEditedAudio,
// because the playback thread also reads it and may briefly outlive the CEditedAudio.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <utility>
#include <vector>

#include "core/com_ptr.h"
#include "core/frame_math.h"
#include "core/nested_call.h"
#include "core/sample_array.h"
#include "edit/annotations.h"
#include "edit/segment_list.h"

namespace marlinda {

enum class ContentCall { kRead, kOpen, kClose };

// Limit for nested reads of a document that contains itself. More could overflow a thread's stack.
inline constexpr int kMaxReadDepth = 64;

// A new document has the rate 1 and no channels. Without rate or channels, a format is unset.
struct DocumentFormat {
  bool IsSet() const noexcept { return samples_per_sec != 0 && channels != 0; }

  LONG samples_per_sec = 1;
  SHORT channels = 0;
  SHORT bits_per_sample = 16;
};

// A slim reader-writer lock for std::shared_lock and std::unique_lock. std::shared_mutex is much
// slower under mingw. Not recursive.
class SrwLock {
 public:
  SrwLock() noexcept = default;
  SrwLock(const SrwLock&) = delete;
  SrwLock& operator=(const SrwLock&) = delete;

  void lock() noexcept { AcquireSRWLockExclusive(&lock_); }
  void unlock() noexcept { ReleaseSRWLockExclusive(&lock_); }
  void lock_shared() noexcept { AcquireSRWLockShared(&lock_); }
  void unlock_shared() noexcept { ReleaseSRWLockShared(&lock_); }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};

// The lock guards every member but the scratch array. It is never held during a call to a source, a
// sink or another document, not even AddRef or Release, because the callee may call this document.
struct DocumentContent {
  using Segments = SegmentList<ComPtr<IAudioReader>>;
  using Segment = Segments::Segment;
  // A part of one segment. Its source is borrowed and valid while a Pin exists.
  struct Piece {
    IAudioReader* source;
    __int64 begin;
    __int64 end;
  };

  // While a pin exists, the content keeps its references to removed sources. The last pin releases
  // these references without the lock.
  class Pin {
   public:
    explicit Pin(DocumentContent& content) noexcept : content_(content) {
      const std::unique_lock guard(content_.lock);
      ++content_.pins;
    }
    ~Pin() {
      // Declared before the guard, so that the references are released without the lock.
      std::vector<std::vector<Segments::Block>> released;
      const std::unique_lock guard(content_.lock);
      if (--content_.pins == 0) released.swap(content_.removed);
    }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

   private:
    DocumentContent& content_;
  };

  // ReadAudio, OpenDevice and CloseDevice implement the document's methods of the same names.
  HRESULT ReadAudio(__int64 position, SAFEARRAY* samples) {
    // Reads each piece into an array of exactly the piece's size. If a read fails, nothing of its
    // piece reaches the caller. The pieces fill the caller's array from its start, even if the read
    // begins before frame 0. With backward segments (end before begin) the pieces can exceed the
    // array. The excess is dropped.
    return ComCall([&]() -> HRESULT {
      SampleArrayView view;
      Check(view.Lock(samples));
      const NestedCall call(this, ContentCall::kRead);
      if (call.Depth() > kMaxReadDepth) return E_FAIL;

      const Pin pin(*this);
      std::shared_lock guard(lock);
      const __int64 channels = format.channels;
      if (channels == 0) {
        guard.unlock();
        std::ranges::fill(view.samples(), 0.0F);
        return S_FALSE;
      }
      // With a negative channel count the frame count is negative too, so no piece is read.
      const __int64 frames = static_cast<__int64>(view.samples().size()) / channels;
      const CSection request(position, SaturatingAdd(position, frames));
      const std::vector<Piece> pieces = Cut(request);
      const __int64 length = segments.Length();
      guard.unlock();

      if (length < request.end) {
        const __int64 left = std::max<__int64>(0, SaturatingSubtract(length, request.begin));
        std::ranges::fill(view.samples().subspan(static_cast<std::size_t>(left * channels)), 0.0F);
      }
      std::span<float> room = view.samples();
      ScratchLease lease(scratch);
      for (const Piece& piece : pieces) {
        const auto count = static_cast<std::size_t>((piece.end - piece.begin) * channels);
        const std::span<float> target = room.first(std::min(count, room.size()));
        if (piece.source != nullptr) {
          Check(piece.source->ReadAudio(piece.begin, lease->Prepare(count)));
          const std::span<const float> delivered = lease->samples();
          std::copy_n(delivered.data(), std::min(delivered.size(), target.size()), target.data());
        } else {
          std::ranges::fill(target, 0.0F);
        }
        room = room.subspan(target.size());
      }
      return S_OK;
    });
  }
  // If a source cannot be opened, the sources opened before it stay open.
  HRESULT OpenDevice() {
    return ComCall([&]() -> HRESULT {
      const NestedCall call(this, ContentCall::kOpen);
      if (call.Depth() > 1) return E_FAIL;
      const Pin pin(*this);
      for (const Piece& piece : AllPieces()) {
        if (piece.source != nullptr) Check(piece.source->OpenDevice());
      }
      return S_OK;
    });
  }
  HRESULT CloseDevice() {
    return ComCall([&] {
      const NestedCall call(this, ContentCall::kClose);
      if (call.Depth() > 1) return;
      const Pin pin(*this);
      for (const Piece& piece : AllPieces()) {
        if (piece.source != nullptr) piece.source->CloseDevice();
      }
    });
  }

  DocumentFormat CurrentFormat() {
    const std::shared_lock guard(lock);
    return format;
  }
  // If the document has no format, adopts the source's format. Ignores the result of GetFormat.
  void AdoptFormat(IAudioReader* source) {
    DocumentFormat adopted = CurrentFormat();
    if (source == nullptr || adopted.IsSet()) return;
    source->GetFormat(&adopted.samples_per_sec, &adopted.channels);
    const std::unique_lock guard(lock);
    format.samples_per_sec = adopted.samples_per_sec;
    format.channels = adopted.channels;
  }

  // Returns the parts of segments in `range`, or all whole segments if there is no range. Call with
  // the lock and a pin held.
  std::vector<Piece> Cut(const std::optional<CSection>& range) const {
    std::vector<Piece> pieces;
    const auto take = [&](const ComPtr<IAudioReader>& source, const CSection& section) {
      pieces.push_back({source.Get(), section.begin, section.end});
    };
    if (range) {
      pieces.reserve(segments.MaxPieces(*range));
      segments.ForEachPiece(*range, take);
    } else {
      pieces.reserve(segments.Count());
      segments.ForEach(take);
    }
    return pieces;
  }

  // Inserts segments and moves labels and markers.
  void Insert(__int64 position, std::vector<Segment> added) {
    __int64 length = 0;
    for (const Segment& segment : added) length = WrappingAdd(length, segment.Length());
    const Pin pin(*this);
    ComPtr<IAudioReader> divided;
    std::unique_lock guard(lock);
    HoldDivided(guard, {position, position}, divided);
    segments.Insert(position, added, divided);
    annotations.MoveForInsertion(position, length);
  }
  // Removes the frames in a range. A backward range repeats its frames instead. A marker that spans
  // the range becomes two. Also removes all empty and backward segments of the document.
  void Delete(const CSection& range) {
    if (CutOut(range)) return;
    const Pin pin(*this);
    std::shared_lock guard(lock);
    const __int64 length = segments.Length();
    const std::vector<Piece> head = Cut(CSection(0, range.begin));
    const std::vector<Piece> tail = Cut(CSection(range.end, length));
    Annotations kept_annotations = annotations;
    guard.unlock();

    kept_annotations.Delete(range, length);
    Segments kept;
    for (const Piece& piece : head) {
      AdoptFormat(piece.source);
      kept.Append({piece.source, piece.begin, piece.end});
    }
    std::vector<Segment> behind;
    for (const Piece& piece : tail) {
      AdoptFormat(piece.source);
      behind.emplace_back(piece.source, piece.begin, piece.end);
    }
    // After a backward segment, positions repeat, so the head can have more than range.begin
    // frames. The tail is therefore inserted at range.begin, not appended.
    const Segment* const found = kept.DividedBy({range.begin, range.begin});
    ComPtr<IAudioReader> divided = found != nullptr ? found->source : nullptr;
    kept.Insert(range.begin, behind, divided);
    Replace(std::move(kept), std::move(kept_annotations));
  }
  // Replaces segments, labels and markers.
  void Replace(Segments new_segments, Annotations new_annotations) {
    const Pin pin(*this);
    const std::unique_lock guard(lock);
    removed.emplace_back();
    removed.back() = segments.RemoveAll();
    segments = std::move(new_segments);
    std::swap(annotations, new_annotations);
  }

  SrwLock lock;
  DocumentFormat format;
  Segments segments;
  Annotations annotations;
  int pins = 0;
  std::vector<std::vector<Segments::Block>> removed;
  ScratchCache scratch;

 private:
  // Deletes the range in place. Changes nothing and returns false if the range is backward, the
  // range begins before frame 0, AllHaveFrames is false, or no format is set.
  bool CutOut(const CSection& range) {
    if (range.begin < 0 || range.end < range.begin) return false;
    const Pin pin(*this);
    ComPtr<IAudioReader> divided;
    std::unique_lock guard(lock);
    HoldDivided(guard, range, divided);
    if (!format.IsSet() || !segments.AllHaveFrames()) return false;
    const __int64 length = segments.Length();
    removed.emplace_back(1);
    removed.back().front() = segments.Remove(range, divided);
    annotations.Delete(range, length);
    return true;
  }
  // Sets `divided` to the source of the segment that an edit at `range` will divide, else to null.
  // Releases the lock during AddRef and Release.
  void HoldDivided(std::unique_lock<SrwLock>& guard, const CSection& range,
                   ComPtr<IAudioReader>& divided) const {
    for (;;) {
      const Segment* const found = segments.DividedBy(range);
      IAudioReader* const source = found != nullptr ? found->source.Get() : nullptr;
      if (source == divided.Get()) return;
      guard.unlock();
      Hold(divided, source);
      guard.lock();
    }
  }
  std::vector<Piece> AllPieces() {
    const std::shared_lock guard(lock);
    return Cut(std::nullopt);
  }
};

}  // namespace marlinda
