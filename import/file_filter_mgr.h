// CFileFilterMgr: chooses the import filter for a file and describes all of them to an "open"
// dialog.
#pragma once

#include <marlinda.h>

#include "core/com_object.h"

namespace marlinda {

// Which filters exist is listed in the registry alone, so that filters of other modules take part;
// the filters of this module count only when they are listed too. Every call reads the list afresh.
// An entry that is no class identifier or whose class cannot be created is passed over.
class CFileFilterMgr final : public Object<CFileFilterMgr, IFileFilterMgr> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CFileFilterMgr;

  // IFileFilterMgr
  // Also S_OK, with a null filter, when no listed filter accepts the file.
  STDMETHODIMP CreateImportFilter(BSTR bstrPathName, IImportFilter** ppImportFilter) override;
  STDMETHODIMP GetImportFilterString(BSTR* pbstrFilterString) override;
};

}  // namespace marlinda
