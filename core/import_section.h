// IImportSection: the part of a file that an import filter decodes. No type library names it; a
// C++ host asks the filter for it, and filters in other modules may have it.
#pragma once

#include <unknwn.h>

namespace marlinda {

struct DECLSPEC_UUID("0c1d7f5a-3b0e-4f0b-8f7e-52a4c1e6b9d3") IImportSection : public IUnknown {
  // After Initialize: S_OK if GetSourceSampleCount is exact and SetSection takes any part of the
  // file, else S_FALSE.
  virtual HRESULT STDMETHODCALLTYPE QueryCanSetSection() = 0;
  // Once between Initialize and Start: the run delivers `count` frames from `first` on, the same
  // that a run over the whole file delivers there, and in the same blocks except for the first and
  // the last one. GetSourceSampleCount and progress count these;
  // labels and markers keep their positions in the file. E_FAIL where QueryCanSetSection is not
  // S_OK, E_INVALIDARG for a part that is empty or reaches beyond the file. After another error,
  // Initialize readies the filter again.
  virtual HRESULT STDMETHODCALLTYPE SetSection(__int64 first, __int64 count) = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IImportSection, 0x0c1d7f5a, 0x3b0e, 0x4f0b, 0x8f, 0x7e, 0x52, 0xa4, 0xc1,
                0xe6, 0xb9, 0xd3)
#endif
