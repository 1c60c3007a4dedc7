// DocumentContent: what a document holds and how it is read, apart from the object that the host
// knows: the playback thread reads it too, and may have to outlive that object by a moment.
#pragma once

#include <marlinda.h>

#include <mutex>
#include <optional>
#include <vector>

#include "core/com_ptr.h"
#include "core/sample_array.h"
#include "edit/annotations.h"
#include "edit/segment_list.h"

namespace marlinda {

// A fresh document has the rate 1; its zero channels alone mean that no format is set.
struct DocumentFormat {
  bool IsSet() const noexcept { return samples_per_sec != 0 && channels != 0; }

  LONG samples_per_sec = 1;
  SHORT channels = 0;
  SHORT bits_per_sample = 16;
};

// A reader-writer lock of the system, for std::shared_lock and std::unique_lock: the standard's own
// is much slower under mingw. Not recursive.
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

// The lock guards every other member but the scratch array. No method of a source, a sink or
// another document is called under it, not even AddRef or Release: any of them may come back to the
// document.
struct DocumentContent {
  using Segments = SegmentList<ComPtr<IAudioReader>>;
  using Segment = Segments::Segment;
  // A part of the list whose source is borrowed: valid while a Pin exists.
  struct Piece {
    IAudioReader* source;
    __int64 begin;
    __int64 end;
  };

  // While a pin exists, sources that an edit removes from the list keep their references. The last
  // pin releases them, without the lock.
  class Pin {
   public:
    explicit Pin(DocumentContent& content) noexcept;
    ~Pin();
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

   private:
    DocumentContent& content_;
  };

  // What the document answers to the methods of the same names.
  HRESULT ReadAudio(__int64 position, SAFEARRAY* samples);
  HRESULT OpenDevice();
  HRESULT CloseDevice();

  DocumentFormat CurrentFormat();
  // A document without a format takes that of the source. The source's result is ignored.
  void AdoptFormat(IAudioReader* source);

  // The parts of the list in a range, or all segments whole. Call with the lock and a pin held.
  std::vector<Piece> Cut(const std::optional<CSection>& range) const;

  // Inserts segments and moves labels and markers.
  void Insert(__int64 position, std::vector<Segment> added);
  // Joins the frames before and behind a range. A range that runs backward repeats the frames in
  // it, a marker around the range becomes two, and empty and backward segments disappear.
  void Delete(const CSection& range);
  // Replaces segments, labels and markers.
  void Replace(Segments new_segments, Annotations new_annotations);

  SrwLock lock;
  DocumentFormat format;
  Segments segments;
  Annotations annotations;
  int pins = 0;
  std::vector<std::vector<Segments::Block>> removed;
  ScratchCache scratch;

 private:
  bool CutOut(const CSection& range);
  void HoldDivided(std::unique_lock<SrwLock>& guard, const CSection& range,
                   ComPtr<IAudioReader>& divided);
  std::vector<Piece> AllPieces();
};

}  // namespace marlinda
