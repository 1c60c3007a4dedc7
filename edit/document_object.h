// IDocumentObject: how a document recognises another one of this module, to take over many segments
// without a call for each. Private: no type library names it.
#pragma once

#include <unknwn.h>

namespace marlinda {

class CEditedAudio;

struct DECLSPEC_UUID("6f0c9e42-7d35-4b1a-9a5e-2c81d4f7b360") IDocumentObject : public IUnknown {
  // The object itself, without a reference.
  virtual CEditedAudio* STDMETHODCALLTYPE Implementation() = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IDocumentObject, 0x6f0c9e42, 0x7d35, 0x4b1a, 0x9a, 0x5e, 0x2c, 0x81, 0xd4,
                0xf7, 0xb3, 0x60)
#endif
