// IPeakSummary: how a source of peaks says what stretches of them come to, without handing out each
// peak. Private: no type library names it, and a source can do without.
#pragma once

#include <marlinda.h>

#include <cstdint>
#include <span>

namespace marlinda {

struct DECLSPEC_UUID("b8a0b9a5-3c3b-4f0f-8a38-6de1f4f9c2d7") IPeakSummary : public IUnknown {
  // The stretches follow each other: the first begins at the peak `first`, stretch i ends before
  // the peak ends[i]. Of each it writes the pairs (lowest, highest), one for each of `channels`,
  // that ReadPeaks and a comparison of one peak after the other would give.
  //
  // Fails without saying why when ReadPeaks has to do: so also when `peaks` is not this object's
  // own interface, because an outer object answers for it.
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
