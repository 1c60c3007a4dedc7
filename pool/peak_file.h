// IPeakFile: reports how much of a pool's peak file is final. Private; not in a type library.
#pragma once

#include <unknwn.h>

#include <cstdint>

namespace marlinda {

struct DECLSPEC_UUID("e1c7f1de-56f1-4a57-9a5b-0f4c9cf1a7e3") IPeakFile : public IUnknown {
  // `end` receives the byte position of the first peak that may still change. `rewinds` receives
  // the number of times that this position has moved backward. Earlier peaks are final while
  // `rewinds` stays the same. Fails if `file` is not the pool's peak file.
  virtual HRESULT STDMETHODCALLTYPE GetSettledPeaks(HANDLE file, std::int64_t* end,
                                                    std::uint32_t* rewinds) = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IPeakFile, 0xe1c7f1de, 0x56f1, 0x4a57, 0x9a, 0x5b, 0x0f, 0x4c, 0x9c, 0xf1,
                0xa7, 0xe3)
#endif
