// DocumentContent: what a document holds and how it is read, apart from the object that the host
// knows: the playback thread reads it too, and may have to outlive that object by a moment.
#pragma once

#include <marlinda.h>

#include <vector>

#include "core/com_ptr.h"
#include "core/scratch_array.h"
#include "core/srw_lock.h"
#include "edit/annotations.h"
#include "edit/segment_list.h"

namespace marlinda {

// The rate of 1 is deliberate: what marks a fresh document is that it has no channels.
struct DocumentFormat {
  bool IsSet() const noexcept { return samples_per_sec != 0 && channels != 0; }

  LONG samples_per_sec = 1;
  SHORT channels = 0;
  SHORT bits_per_sample = 16;
};

// The lock guards every other member but the scratch array. It is never held while a source, a sink
// or another document is called.
struct DocumentContent {
  using Segments = SegmentList<ComPtr<IAudioReader>>;
  using Segment = Segments::Segment;

  // What the document answers to the methods of the same names.
  HRESULT ReadAudio(__int64 position, SAFEARRAY* samples);
  HRESULT OpenDevice();
  HRESULT CloseDevice();

  DocumentFormat CurrentFormat();
  // One entry for each segment that has a source, in order.
  std::vector<ComPtr<IAudioReader>> Sources();

  SrwLock lock;
  DocumentFormat format;
  Segments segments;
  Annotations annotations;
  ScratchCache scratch;
};

}  // namespace marlinda
