// The filter manager over the real registry list, with filters of the test's own beside the real
// ones.
#include <gmock/gmock.h>

#include <memory>

#include "core/handle.h"
#include "tests/import/ogg_files.h"
#include "tests/support/com_client.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {
namespace {

constexpr wchar_t kSavedKey[] = L"Software\\Brevant\\Cutloom\\Import Filters before the tests";
constexpr wchar_t kListKey[] = L"Software\\Brevant\\Cutloom\\Import Filters";

// The registry list of import filters, empty for the test; the former list comes back at the end.
class FilterList {
 public:
  FilterList() {
    EXPECT_EQ(Copy(kListKey, kSavedKey), ERROR_SUCCESS);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kListKey);
  }
  FilterList(const FilterList&) = delete;
  FilterList& operator=(const FilterList&) = delete;
  ~FilterList() {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kListKey);
    EXPECT_EQ(Copy(kSavedKey, kListKey), ERROR_SUCCESS);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSavedKey);
  }

  void Add(const std::wstring& name, DWORD type, const std::wstring& text) {
    EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kListKey, name.c_str(), type, text.c_str(),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
  }
  // Listed in the order of the calls: names that sort in it, too, for systems that sort.
  void Add(const std::wstring& text, DWORD type = REG_SZ) {
    Add(L"filter " + std::to_wstring(++count_), type, text);
  }
  void Add(REFCLSID clsid) { Add(Text(clsid)); }

  static std::wstring Text(REFCLSID clsid) {
    wchar_t text[40];
    StringFromGUID2(clsid, text, 40);
    return text;
  }

 private:
  static LSTATUS Copy(const wchar_t* from, const wchar_t* to) {
    RegistryKey source;
    RegistryKey target;
    const LSTATUS status = RegCreateKeyW(HKEY_LOCAL_MACHINE, from, source.Receive());
    if (status != ERROR_SUCCESS) return status;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, to, target.Receive());
    return RegCopyTreeW(source.get(), nullptr, target.get());
  }

  int count_ = 0;
};

// How a filter of the test answers. A result of failure comes without an output.
struct Answers {
  HRESULT can_load = S_OK;
  SHORT merit = 100;
  HRESULT merit_result = S_OK;
  const wchar_t* fragment = L"";
  const wchar_t* patterns = L"";
  HRESULT strings_result = S_OK;
};

// A class of import filters that this process offers under an identifier of its own.
class FilterClass final : public TestObject<IClassFactory> {
 public:
  explicit FilterClass(const Answers& answers) : answers_(answers) {
    EXPECT_EQ(CoCreateGuid(&clsid_), S_OK);
    EXPECT_EQ(CoRegisterClassObject(clsid_, this, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                    &registration_),
              S_OK);
  }
  FilterClass(const FilterClass&) = delete;
  FilterClass& operator=(const FilterClass&) = delete;
  ~FilterClass() {
    CoRevokeClassObject(registration_);
    EXPECT_EQ(alive, 0) << "a filter was not released";
  }

  const CLSID& clsid() const { return clsid_; }

  int created = 0;
  int alive = 0;
  int merit_questions = 0;
  std::wstring asked_about;
  const IImportFilter* latest = nullptr;

  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

 private:
  class Filter;
  const Answers answers_;
  CLSID clsid_ = {};
  DWORD registration_ = 0;
};

class FilterClass::Filter final : public TestObject<IImportFilter> {
 public:
  explicit Filter(FilterClass& owner) : owner_(owner) {
    ++owner.created;
    ++owner.alive;
    owner.latest = this;
  }
  ~Filter() { --owner_.alive; }

  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override {
    owner_.asked_about = bstrFileName;
    return owner_.answers_.can_load;
  }
  STDMETHODIMP GetMerit(SHORT* pnMerit) override {
    ++owner_.merit_questions;
    if (SUCCEEDED(owner_.answers_.merit_result)) *pnMerit = owner_.answers_.merit;
    return owner_.answers_.merit_result;
  }
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override {
    const Answers& answers = owner_.answers_;
    if (answers.fragment != nullptr) *pbstrFilterString = SysAllocString(answers.fragment);
    if (answers.patterns != nullptr) *pbstrExtensions = SysAllocString(answers.patterns);
    return answers.strings_result;
  }
  STDMETHODIMP Initialize(BSTR, IAudioWriter*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSourceSampleCount(__int64*) override { return E_NOTIMPL; }

 private:
  FilterClass& owner_;
};

STDMETHODIMP FilterClass::CreateInstance(IUnknown*, REFIID iid, void** object) {
  const auto filter = MakeObject<Filter>(*this);
  return filter->QueryInterface(iid, object);
}

class FileFilterMgr : public ::testing::Test {
 protected:
  ComPtr<IImportFilter> FilterFor(const std::wstring& path) {
    ComPtr<IImportFilter> filter;
    EXPECT_EQ(manager_->CreateImportFilter(Bstr(path), filter.GetAddressOf()), S_OK);
    return filter;
  }
  std::wstring FilterString() {
    Bstr text;
    EXPECT_EQ(manager_->GetImportFilterString(text.Receive()), S_OK);
    return text.str();
  }

  FilterList list_;
  ComPtr<IFileFilterMgr> manager_ = Create<IFileFilterMgr>(CLSID_CFileFilterMgr);
};

constexpr wchar_t kNoFilters[] = L"All Known Audio File Types ()||All Files (*.*)|*.*";

TEST_F(FileFilterMgr, AddsNoFilterThatIsNotListed) {
  const std::wstring ogg = DataFile("stereo.ogg").wstring();
  EXPECT_EQ(FilterFor(ogg), nullptr);
  EXPECT_EQ(FilterString(), kNoFilters);
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kListKey);
  EXPECT_EQ(FilterFor(ogg), nullptr);
  EXPECT_EQ(FilterString(), kNoFilters);
}

TEST_F(FileFilterMgr, FindsTheListedOggImportForAnOggFileAlone) {
  list_.Add(CLSID_COggImport);
  const auto filter = FilterFor(DataFile("stereo.ogg").wstring());
  ASSERT_NE(filter, nullptr);
  EXPECT_EQ(ReferenceCount(filter.Get()), 1U);
  EXPECT_NE(As<ICoreTask>(filter), nullptr);
  EXPECT_EQ(FilterFor(DataFile("generate.sh").wstring()), nullptr);
  EXPECT_EQ(FilterFor(L"no such file.ogg"), nullptr);
  EXPECT_EQ(FilterString(),
            L"All Known Audio File Types (*.ogg)|*.ogg|Ogg Vorbis Files (*.ogg)|*.ogg|"
            L"All Files (*.*)|*.*");
}

TEST_F(FileFilterMgr, ChoosesTheFirstOfTheHighestMeritAmongThoseThatAccept) {
  struct Row {
    std::vector<Answers> filters;
    int chosen;  // -1 for none
  };
  const Row rows[] = {
      {{{.merit = 100}, {.merit = 300}, {.merit = 200}}, 1},
      {{{.merit = 100}, {.merit = 100}}, 0},
      // Only S_OK accepts.
      {{{.can_load = S_FALSE, .merit = 1000}, {.can_load = E_FAIL, .merit = 1000}, {.merit = 1}},
       2},
      // A merit below 0, or none, is never chosen.
      {{{.merit = -1}, {.merit_result = E_FAIL}}, -1},
      {{{.merit = -1}, {.merit = 0}}, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kListKey);
    std::vector<std::unique_ptr<FilterClass>> classes;
    for (const Answers& answers : row.filters) {
      list_.Add(classes.emplace_back(std::make_unique<FilterClass>(answers))->clsid());
    }
    const auto chosen = FilterFor(L"a file");
    EXPECT_EQ(chosen.Get(), row.chosen < 0 ? nullptr : classes[row.chosen]->latest);
    for (const auto& each : classes) {
      EXPECT_EQ(each->created, 1);
      EXPECT_EQ(each->asked_about, L"a file");
      EXPECT_EQ(each->merit_questions, 1) << "the merit is asked of every filter";
    }
  }
}

TEST_F(FileFilterMgr, PassesOverWhatIsNoClassOrCannotBeCreated) {
  FilterClass good({.fragment = L"Good|*.g|", .patterns = L"*.g"});
  list_.Add(L"");
  list_.Add(L"no class identifier");
  list_.Add(FilterList::Text(good.clsid()).substr(1));
  list_.Add(L"{00000000-1111-2222-3333-444444444444}");
  // A class that exists but is no import filter.
  list_.Add(CLSID_CNullReader);
  list_.Add(good.clsid());
  EXPECT_EQ(FilterFor(L"a file").Get(), good.latest);
  EXPECT_EQ(FilterString(), L"All Known Audio File Types (*.g)|*.g|Good|*.g|All Files (*.*)|*.*");
}

TEST_F(FileFilterMgr, ReadsTextValuesUpToTheFirstThatIsTooLong) {
  FilterClass first({.fragment = L"1|"});
  FilterClass other({.fragment = L"2|"});
  FilterClass last({.fragment = L"3|"});
  list_.Add(first.clsid());
  list_.Add(FilterList::Text(other.clsid()), REG_EXPAND_SZ);
  list_.Add(L"x", REG_DWORD);
  list_.Add(last.clsid());
  EXPECT_EQ(FilterString(), L"All Known Audio File Types ()||1|3|All Files (*.*)|*.*");
  list_.Add(std::wstring(99, L'x'));
  list_.Add(other.clsid());
  EXPECT_EQ(FilterString(), L"All Known Audio File Types ()||1|3|2|All Files (*.*)|*.*");
  list_.Add(std::wstring(100, L'x'));
  FilterClass unseen({.fragment = L"4|"});
  list_.Add(unseen.clsid());
  EXPECT_EQ(FilterString(), L"All Known Audio File Types ()||1|3|2|All Files (*.*)|*.*");
  EXPECT_EQ(unseen.created, 0);
}

TEST_F(FileFilterMgr, ComposesTheStringsInTheOrderOfTheList) {
  FilterClass wave({.fragment = L"Wave Audio Files (*.wav)|*.wav|", .patterns = L"*.wav;*.wave"});
  FilterClass plain({.fragment = L"Anything (*)|*|", .patterns = L""});
  FilterClass failing({.fragment = nullptr, .patterns = nullptr, .strings_result = E_FAIL});
  list_.Add(plain.clsid());
  list_.Add(wave.clsid());
  list_.Add(failing.clsid());
  list_.Add(CLSID_COggImport);
  EXPECT_EQ(FilterString(),
            L"All Known Audio File Types (*.wav;*.wave;*.ogg)|*.wav;*.wave;*.ogg|"
            L"Anything (*)|*|Wave Audio Files (*.wav)|*.wav|Ogg Vorbis Files (*.ogg)|*.ogg|"
            L"All Files (*.*)|*.*");
}

}  // namespace
}  // namespace marlinda::testing
