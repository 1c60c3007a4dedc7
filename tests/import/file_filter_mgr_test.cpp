// Tests the filter manager with a registry list, the test's own filters and the real filters.
#include <gmock/gmock.h>

#include <memory>

#include "core/handle.h"
#include "tests/import/ogg_files.h"
#include "tests/support/com_client.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {
namespace {

constexpr wchar_t kScratch[] = L"Software\\TessalyFilterTest";
constexpr wchar_t kListKey[] = L"Software\\Brevant\\Cutloom\\Import Filters";

std::wstring TextOf(REFCLSID clsid) {
  wchar_t text[40];
  StringFromGUID2(clsid, text, 40);
  return text;
}

// The results that a test filter returns.
struct Answers {
  HRESULT can_load = S_OK;
  SHORT merit = 100;
  HRESULT merit_result = S_OK;
  const wchar_t* fragment = nullptr;  // if null, GetFilterStrings fails
  const wchar_t* patterns = L"";
};

// A filter that this process registers as a class. It is the only object of the class.
class TestFilter final : public TestObject<IImportFilter, IClassFactory> {
 public:
  explicit TestFilter(const Answers& answers) : answers_(answers) {
    EXPECT_EQ(CoCreateGuid(&clsid), S_OK);
    EXPECT_EQ(CoRegisterClassObject(clsid, static_cast<IImportFilter*>(this), CLSCTX_INPROC_SERVER,
                                    REGCLS_MULTIPLEUSE, &registration_),
              S_OK);
  }
  ~TestFilter() {
    CoRevokeClassObject(registration_);
    EXPECT_EQ(Held(), 0) << "it was not released";
  }

  CLSID clsid = {};
  std::string calls;  // the first letters of the called methods

  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return calls += 'C', QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
  STDMETHODIMP QueryCanLoad(BSTR file_name) override {
    return calls += file_name == std::wstring(L"a file") ? 'Q' : '?', answers_.can_load;
  }
  STDMETHODIMP GetMerit(SHORT* merit) override {
    if (SUCCEEDED(answers_.merit_result)) *merit = answers_.merit;
    return calls += 'M', answers_.merit_result;
  }
  STDMETHODIMP GetFilterStrings(BSTR* fragment, BSTR* patterns) override {
    if (answers_.fragment == nullptr) return E_FAIL;
    *fragment = SysAllocString(answers_.fragment);
    *patterns = SysAllocString(answers_.patterns);
    return S_OK;
  }
  STDMETHODIMP Initialize(BSTR, IAudioWriter*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSourceSampleCount(__int64*) override { return E_NOTIMPL; }

 private:
  const Answers answers_;
  DWORD registration_ = 0;
};

// Uses its own filter list, because other programs read the machine's list at the same time.
class FileFilterMgr : public ::testing::Test {
 protected:
  FileFilterMgr() {
    EXPECT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, kScratch, scratch_.Receive()), 0);
    EXPECT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, scratch_.get()), 0);
  }
  ~FileFilterMgr() override {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
  }

  // Appends a filter. All names have two digits, because some systems sort the list by name.
  void List(const std::wstring& text, DWORD type = REG_SZ) {
    const std::wstring name = L"filter " + std::to_wstring(++count_);
    EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kListKey, name.c_str(), type, text.c_str(),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
  }
  ComPtr<IImportFilter> FilterFor(const std::wstring& path) {
    ComPtr<IImportFilter> filter;
    EXPECT_EQ(manager_->CreateImportFilter(Bstr(path), filter.GetAddressOf()), S_OK);
    return filter;
  }

  RegistryKey scratch_;
  int count_ = 10;
  ComPtr<IFileFilterMgr> manager_ = Create<IFileFilterMgr>(CLSID_CFileFilterMgr);
};

TEST_F(FileFilterMgr, ChoosesTheFirstAcceptingFilterWithTheHighestMerit) {
  struct Row {
    std::vector<Answers> filters;
    std::size_t chosen;
  };
  const Row rows[] = {
      {{{.merit = 100}, {.merit = 300}, {.merit = 300}, {.merit = 200}}, 1},
      // Only S_OK means that the filter accepts the file.
      {{{.can_load = S_FALSE, .merit = 999}, {.can_load = E_FAIL, .merit = 999}, {.merit = 1}}, 2},
      // A filter is never chosen if its merit is negative or cannot be read.
      {{{.merit = -1}, {.merit_result = E_FAIL}, {.merit = 0}}, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kListKey);
    std::vector<std::unique_ptr<TestFilter>> filters;
    for (const Answers& answers : row.filters) {
      List(TextOf(filters.emplace_back(std::make_unique<TestFilter>(answers))->clsid));
    }
    const auto chosen = FilterFor(L"a file");
    EXPECT_EQ(chosen.Get(), filters[row.chosen].get());
    // The manager asks every filter for its merit.
    for (const auto& each : filters) EXPECT_EQ(each->calls, "CQM");
  }
}

TEST_F(FileFilterMgr, ReadsClassIdentifiersUpToTheFirstValueThatIsTooLong) {
  TestFilter plain({.merit = 0, .fragment = L"Anything (*)|*|"});
  TestFilter wave({.merit = 0, .fragment = L"Wave (*.wav)|*.wav|", .patterns = L"*.wav;*.wave"});
  TestFilter failing({.can_load = S_FALSE});
  TestFilter unseen({.merit = 999, .fragment = L"unseen|"});
  for (const std::wstring& text :
       {std::wstring(L"no class identifier"), TextOf(GUID_NULL), TextOf(CLSID_CNullReader),
        TextOf(plain.clsid), TextOf(wave.clsid), TextOf(failing.clsid), std::wstring(99, L'x')}) {
    List(text);
  }
  List(TextOf(unseen.clsid), REG_EXPAND_SZ);
  List(TextOf(CLSID_COggImport));
  List(std::wstring(100, L'x'));
  List(TextOf(unseen.clsid));
  Bstr strings;
  EXPECT_EQ(manager_->GetImportFilterString(strings.Receive()), S_OK);
  EXPECT_EQ(strings.str(),
            L"All Known Audio File Types (*.wav;*.wave;*.ogg)|*.wav;*.wave;*.ogg|"
            L"Anything (*)|*|Wave (*.wav)|*.wav|Ogg Vorbis Files (*.ogg)|*.ogg|"
            L"All Files (*.*)|*.*");
  EXPECT_EQ(FilterFor(L"a file").Get(), &plain);
  EXPECT_EQ(unseen.calls, "");
  const auto ogg = FilterFor(DataFile("stereo.ogg").wstring());
  EXPECT_EQ(ReferenceCount(ogg.Get()), 1U);
  EXPECT_NE(As<IMetaDataReader>(ogg), nullptr) << "not the filter for Ogg files";
}

TEST(NullReader, ReadsSilence) {
  const Floats block(8, 0.5F);
  EXPECT_EQ(As<IAudioReader>(Create<INullReader>(CLSID_CNullReader))->ReadAudio(-7, block), S_OK);
  EXPECT_EQ(block.ToVector(), std::vector<float>(8));
}

}  // namespace
}  // namespace marlinda::testing
