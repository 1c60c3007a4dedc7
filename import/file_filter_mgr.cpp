// CFileFilterMgr: chooses the import filter for a file, and builds the list of file types for an
// "open" dialog.
#include <marlinda.h>

#include <string>
#include <vector>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/registry.h"
#include "core/resource.h"
#include "core/text.h"

namespace marlinda {
namespace {

// Only filters with a higher merit are chosen.
constexpr SHORT kNoMerit = -1;

// Returns the class identifiers of the "Import Filters" list in the registry, as text.
std::vector<std::string> ListedClasses() {
  std::vector<std::string> names;
  std::vector<std::string> class_ids;
  CRegistry registry;
  registry.Open(HKEY_LOCAL_MACHINE, std::string(kSettingsKey) + "\\Import Filters", true);
  registry.EnumStringValues(names, class_ids);
  return class_ids;
}

// Returns null if the text is not a class identifier or the class cannot be created as an import
// filter.
ComPtr<IImportFilter> CreateFilter(const std::string& class_id) {
  CLSID clsid = CLSID_NULL;
  ComPtr<IImportFilter> filter;
  const std::wstring text(class_id.begin(), class_id.end());
  if (FAILED(CLSIDFromString(text.c_str(), &clsid))) return filter;
  if (FAILED(CreateInstance(clsid, filter))) return nullptr;
  return filter;
}

SHORT MeritOf(IImportFilter* filter) {
  SHORT merit = kNoMerit;
  filter->GetMerit(&merit);
  return merit;
}

}  // namespace

// Every call reads the filters from the registry's list, where other modules can add filters. This
// module's filters must be in the list too. Skips entries that are not class identifiers, and
// classes that cannot be created.
class CFileFilterMgr final : public Object<CFileFilterMgr, IFileFilterMgr> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CFileFilterMgr;

  // IFileFilterMgr. Returns S_OK with a null filter if no listed filter accepts the file.
  STDMETHODIMP CreateImportFilter(BSTR bstrPathName, IImportFilter** ppImportFilter) override {
    if (ppImportFilter == nullptr) return E_POINTER;
    *ppImportFilter = nullptr;
    return ComCall([&] {
      ComPtr<IImportFilter> best;
      SHORT best_merit = kNoMerit;
      for (const std::string& class_id : ListedClasses()) {
        ComPtr<IImportFilter> filter = CreateFilter(class_id);
        if (filter == nullptr) continue;
        // Only S_OK means that the filter accepts the file. Of filters with equal merit, the first
        // in the list wins.
        const bool accepts = filter->QueryCanLoad(bstrPathName) == S_OK;
        const SHORT merit = MeritOf(filter.Get());
        if (!accepts || merit <= best_merit) continue;
        best = filter;
        best_merit = merit;
      }
      *ppImportFilter = best.Detach();
    });
  }
  STDMETHODIMP GetImportFilterString(BSTR* pbstrFilterString) override {
    if (pbstrFilterString == nullptr) return E_POINTER;
    *pbstrFilterString = nullptr;
    return ComCall([&] {
      std::string fragments;
      std::string patterns;
      for (const std::string& class_id : ListedClasses()) {
        const ComPtr<IImportFilter> filter = CreateFilter(class_id);
        if (filter == nullptr) continue;
        OwnedBstr fragment;
        OwnedBstr extensions;
        filter->GetFilterStrings(fragment.Receive(), extensions.Receive());
        fragments += ToAnsi(fragment.get());
        const std::string added = ToAnsi(extensions.get());
        if (!patterns.empty() && !added.empty()) patterns += ';';
        patterns += added;
      }
      const CMarlindaModule& module = TheModule();
      *pbstrFilterString = ToBstr(Format(module.LoadText(IDS_ALL_KNOWN_FILES), patterns) +
                                  fragments + module.LoadText(IDS_ALL_FILES));
    });
  }
};

MARLINDA_DEFINE_CLASS(CFileFilterMgr)

}  // namespace marlinda
