// IPeakSummary: returns the extremes of ranges of peaks without copying each peak. A private
// interface that a reader may lack. No type library describes it.
#pragma once

#include <marlinda.h>

#include <cstdint>
#include <span>

namespace marlinda {

struct DECLSPEC_UUID("b8a0b9a5-3c3b-4f0f-8a38-6de1f4f9c2d7") IPeakSummary : public IUnknown {
  // The first range begins at peak `first`. Range i ends before peak ends[i], where the next range
  // begins. Extends one pair (lowest, highest) per channel for each range. The result equals that
  // of ReadPeaks and ExtendByPeaks.
  //
  // If this method fails, use ReadPeaks instead. Fails if `peaks` is not this object's own
  // IPeakReader, because an outer object has then replaced IPeakReader.
  virtual HRESULT STDMETHODCALLTYPE SummarizePeaks(IPeakReader* peaks, std::size_t channels,
                                                   std::int64_t first,
                                                   std::span<const std::int64_t> ends,
                                                   std::span<float> pairs) = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IPeakSummary, 0xb8a0b9a5, 0x3c3b, 0x4f0f, 0x8a, 0x38, 0x6d, 0xe1, 0xf4,
                0xf9, 0xc2, 0xd7)
#endif
