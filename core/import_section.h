// IImportSection: imports a part of a file. No type library describes it. A C++ host queries the
// import filter for it. Filters in other modules may implement it.
#pragma once

#include <unknwn.h>

namespace marlinda {

struct DECLSPEC_UUID("0c1d7f5a-3b0e-4f0b-8f7e-52a4c1e6b9d3") IImportSection : public IUnknown {
  // Call after Initialize. Returns S_OK if GetSourceSampleCount is exact and SetSection accepts any
  // part of the file, otherwise S_FALSE.
  virtual HRESULT STDMETHODCALLTYPE QueryCanSetSection() = 0;
  // Call once between Initialize and Start. The import then delivers `count` frames from frame
  // `first` on. Samples and block boundaries equal those of an import of the whole file, except
  // that the first and the last block may be shorter. GetSourceSampleCount and GetProgress count
  // only the imported frames. Labels and markers keep their positions in the file. Fails with
  // E_FAIL if QueryCanSetSection does not return S_OK, and with E_INVALIDARG for a part that is
  // empty or reaches beyond the file. After any other failure, call Initialize again.
  virtual HRESULT STDMETHODCALLTYPE SetSection(__int64 first, __int64 count) = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IImportSection, 0x0c1d7f5a, 0x3b0e, 0x4f0b, 0x8f, 0x7e, 0x52, 0xa4, 0xc1,
                0xe6, 0xb9, 0xd3)
#endif
