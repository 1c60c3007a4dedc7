// Calls every method of one class with null pointers, extreme numbers, unusual texts and wrong
// sample arrays in every state of the object. After most cases, calls every method with valid
// arguments. The cases come from the type library. CTest runs the program once for each class.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <thread>

#include "tests/abuse/parts.h"
#include "tests/support/contract_model.h"
#include "tests/support/our_converter.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

// All arguments are passed as this type, including pointers and the bits of floats.
using Number = std::int64_t;
using SharedArray = std::shared_ptr<SAFEARRAY>;

constexpr LONG kRate = 44100;
constexpr SHORT kChannels = 2;
constexpr __int64 kFrames = 1000;
const Samples kTake(2 * kFrames, 0.25F);
constexpr Number kMin = std::numeric_limits<Number>::min();
constexpr Number kMax = std::numeric_limits<Number>::max();
// Calls the methods in kStart (below) only after every 64th case, because ending a thread that they
// start takes 100 ms.
constexpr int kCasesForOneStart = 64;
// Means that a case accepts any result.
constexpr HRESULT kAny = S_OK;

// Methods that accept a null object.
const std::set<std::string> kTakeNoObject = {
    "IEditedAudio::InsertSegment", "IEditedAudio::AppendSegment", "IWaveWriter::SetWriteThrough",
    "IImportFilter::Initialize"};
const std::set<std::string> kStart = {"Start", "StartScrub", "Play", "ShowSettingsDlg"};
// The methods of the segment iteration return readers without calling AddRef.
const std::set<std::string> kLend = {"GetFirstSegment", "GetNextSegment"};

// An integer of pointer size.
constexpr VARTYPE kPointerType = sizeof(void*) == 8 ? VT_I8 : VT_I4;

enum State { kFresh, kSetUp, kOpen };

// Returns an array that ends right before a forbidden page, so that access past it crashes.
SharedArray Guarded(std::size_t count = 2048, float value = 0.25F) {
  constexpr std::size_t kPage = 4096;
  const std::size_t bytes = count * sizeof(float);
  const std::size_t room = (bytes + kPage - 1) / kPage * kPage;
  auto* const pages =
      static_cast<char*>(VirtualAlloc(nullptr, room + kPage, MEM_RESERVE, PAGE_NOACCESS));
  if (room > 0) VirtualAlloc(pages, room, MEM_COMMIT, PAGE_READWRITE);
  auto* const samples = reinterpret_cast<float*>(pages + room - bytes);
  std::fill_n(samples, count, value);
  SAFEARRAY* array = nullptr;
  Check(SafeArrayAllocDescriptorEx(VT_R4, 1, &array));
  array->pvData = samples;
  array->rgsabound[0] = {static_cast<ULONG>(count), 0};
  return {array, [pages](SAFEARRAY* given) {
            given->cLocks = 0;
            given->pvData = nullptr;
            SafeArrayDestroyDescriptor(given);
            VirtualFree(pages, 0, MEM_RELEASE);
          }};
}

// Invalid and valid arrays, each with the result that a method must return.
std::vector<std::pair<HRESULT, SharedArray>> Arrays() {
  std::vector<std::pair<HRESULT, SharedArray>> arrays = {{E_INVALIDARG, nullptr}};
  for (const VARTYPE type : {VT_R4, VT_I4, VT_R8, VT_BSTR, VT_VARIANT, VT_I1, VT_UI8}) {
    const auto array = std::make_shared<ForeignArray>(type, type == VT_R4 ? 2 : 1);
    arrays.emplace_back(E_INVALIDARG, SharedArray(array, *array));
  }
  const auto changed = [&](HRESULT wanted) -> SAFEARRAY& {
    return *arrays.emplace_back(wanted, Guarded()).second;
  };
  changed(E_INVALIDARG).pvData = nullptr;
  for (const ULONG elements : {0x40000000UL, 0xFFFFFFFFUL}) {
    changed(E_INVALIDARG).rgsabound[0].cElements = elements;
  }
  changed(E_UNEXPECTED).cLocks = 0xFFFF;
  changed(kAny).rgsabound[0].lLbound = 5;
  for (const std::size_t count : {0, 1, 3, 2047, 65537}) {
    arrays.emplace_back(kAny, Guarded(count));
  }
  arrays.emplace_back(kAny, Guarded(2048, std::numeric_limits<float>::signaling_NaN()));
  return arrays;
}

// The arguments in which a case differs from a valid call, by parameter index.
using Changes = std::map<std::size_t, Number>;
struct Case {
  std::string name;
  Changes changes;
  HRESULT wanted = kAny;
  SharedArray array = nullptr;
};

Number AsNumber(const void* pointer) { return reinterpret_cast<INT_PTR>(pointer); }

std::vector<Case> CasesOf(const Method& method) {
  constexpr Number kNumbers[] = {-1, 0, 1, 2, 25, 33, 1001, 384000, kMax / 4 + 1, kMax - 1000};
  static const Bstr kTexts[] = {Bstr(L""),
                                Bstr(L"*?<>|\""),
                                Bstr(L"C:\\"),
                                Bstr(L"%s%n%1!s!%%"),
                                Bstr(L"\x97f3\xd800"),
                                Bstr(std::wstring(1 << 20, L'x'))};
  std::vector<Case> cases = {{"as it should be", {}}};
  std::vector<std::size_t> numbers;
  for (std::size_t p = 0; p < method.parameters.size(); ++p) {
    const auto& [name, kind, type, iid] = method.parameters[p];
    const auto add = [&, &name = name](Number value, HRESULT wanted = kAny,
                                       const SharedArray& array = {}) {
      cases.push_back({name + " " + std::to_string(value), {{p, value}}, wanted, array});
    };
    if (kind == Kind::kInteger) {
      numbers.push_back(p);
      const int unused = type == VT_I8 ? 0 : type == VT_I2 || type == VT_BOOL ? 48 : 32;
      for (const Number number : kNumbers) {
        if (number <= kMax >> unused) add(number);
      }
      for (const Number number : {kMin, kMax}) add(number >> unused);
    } else if (kind == Kind::kReal) {
      add(std::bit_cast<std::int32_t>(std::numeric_limits<float>::quiet_NaN()));
    } else if (kind == Kind::kArray) {
      for (const auto& [wanted, array] : Arrays()) add(AsNumber(array.get()), wanted, array);
    } else if (kind == Kind::kText) {
      add(0);
      for (const Bstr& text : kTexts) add(AsNumber(text));
    } else {
      add(0, kTakeNoObject.contains(method.FullName()) ? kAny : E_POINTER);
    }
  }
  if (numbers.size() < 2) return cases;
  // For each of these pairs, the sum, difference or product overflows.
  for (const auto& [first, others] : {std::pair{kMax, kMax}, std::pair{kMax, Number{-1}},
                                      std::pair{kMin, kMax}, std::pair{kMax / 2 + 1, kMax}}) {
    Case& all = cases.emplace_back(Case{"all " + std::to_string(first), {}});
    for (const std::size_t p : numbers) {
      const int unused = method.parameters[p].type == VT_I8 ? 0 : 32;
      all.changes[p] = (p == numbers.front() ? first : others) >> unused;
    }
  }
  return cases;
}

// True for methods that wait for a device or for the samples of a nonexistent source.
bool MayWait(const std::string& class_name, const Method& method, State state) {
  const std::string name = method.FullName();
  if (class_name == "CAudioPlayback") return state == kOpen && name == "IAudioWriter::WriteAudio";
  if (name != "IAudioReader::ReadAudio") return false;
  return class_name == "CAudioGrabber" ? state == kOpen
                                       : class_name == "CAudioConnector" && state != kSetUp;
}

BOOL CALLBACK CloseDialog(HWND window, LPARAM) {
  wchar_t name[16] = {};
  GetClassNameW(window, name, 16);
  if (std::wstring(name) == L"#32770") PostMessageW(window, WM_COMMAND, IDCANCEL, 0);
  return TRUE;
}

class ContractAbuse : public ::testing::TestWithParam<std::string> {
 protected:
  ContractAbuse() {
    Check(CopyFileW(TESSALY_SAMPLE_OGG, sample_.c_str(), TRUE) ? S_OK : LastErrorResult());
    // Some texts of the cases are relative file names. Their files belong in this folder.
    SetCurrentDirectoryW(folder_.path().c_str());
  }
  void TearDown() override { SetCurrentDirectoryW(L"C:\\"); }

  // Creates a new object for each case. Ignores the results of the preparing calls. If an object
  // refuses one, the case uses the object as it is.
  HRESULT RunOn(const Class& tested, State state, const Method& method, const Changes& changes,
                bool and_go_on) {
    auto object = Create<IUnknown>(tested.clsid);
    if (state != kFresh) {
      if (auto pool = As<IAudioPool>(object)) WriteTake(As<IAudioWriter>(pool).Get(), kTake);
      CallNamed(tested, object.Get(),
                {"Create", "SetFormat", "Initialize", "SetupReaderToExport", "SetTargetFile",
                 "AppendSegment", "AddLabel", "AddSectionMarker"});
    }
    if (state == kOpen) CallNamed(tested, object.Get(), {"InitChange", "OpenDevice", "Start"});
    const HRESULT hr = CallOnce(object.Get(), method, changes);
    for (const Method& next : tested.methods) {
      if (!and_go_on || MayWait(tested.name, next, kOpen)) continue;
      if (kStart.contains(next.name) && index_ % kCasesForOneStart != 0) continue;
      CallOnce(object.Get(), next, {});
    }
    object.Reset();
    kept_.clear();
    texts_.clear();
    arrays_.clear();
    return hr;
  }

  const std::vector<Class> classes_ = ClassesOfTheModule();
  int index_ = 0;

 private:
  void CallNamed(const Class& tested, IUnknown* object, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      for (const Method& method : tested.methods) {
        if (method.name == name) CallOnce(object, method, {});
      }
    }
  }

  HRESULT CallOnce(IUnknown* object, const Method& method, const Changes& changes) {
    ComPtr<IUnknown> face;
    Check(object->QueryInterface(method.iid, reinterpret_cast<void**>(face.GetAddressOf())));
    const std::size_t count = method.parameters.size();
    std::vector<VARIANTARG> values(count);
    std::vector<Number> outs(count);
    std::vector<VARTYPE> types;
    std::vector<VARIANTARG*> arguments;
    for (std::size_t p = 0; p < count; ++p) {
      const Parameter& parameter = method.parameters[p];
      const auto changed = changes.find(p);
      const bool is_plain = parameter.kind == Kind::kInteger || parameter.kind == Kind::kReal;
      types.push_back(is_plain ? parameter.type : kPointerType);
      V_VT(arguments.emplace_back(&values[p])) = types.back();
      V_I8(&values[p]) =  // a smaller type uses only the low bytes
          changed != changes.end()       ? changed->second
          : parameter.kind == Kind::kOut ? AsNumber(&outs[p])
                                         : Legal(object, parameter);
    }
    VARIANT result = {};
    Check(DispCallFunc(face.Get(), method.vtable_offset, CC_STDCALL, VT_I4,
                       static_cast<UINT>(count), types.data(), arguments.data(), &result));
    const HRESULT hr = V_I4(&result);
    EXPECT_TRUE(FAILED(hr) || hr == S_OK || hr == S_FALSE) << method.FullName() << std::hex << hr;
    for (std::size_t p = 0; p < count; ++p) {
      const VARTYPE type = method.parameters[p].type;
      auto* const handed_out = reinterpret_cast<void*>(static_cast<INT_PTR>(outs[p]));
      if (handed_out == nullptr || (type != VT_BSTR && type != VT_UNKNOWN)) continue;
      EXPECT_TRUE(SUCCEEDED(hr)) << method.FullName() << " handed something out nevertheless";
      if (type == VT_BSTR) SysFreeString(static_cast<BSTR>(handed_out));
      if (type == VT_UNKNOWN && !kLend.contains(method.name)) {
        static_cast<IUnknown*>(handed_out)->Release();
      }
    }
    return hr;
  }

  // Returns a valid argument, chosen by type and parameter name, so that new classes are covered
  // too.
  Number Legal(IUnknown* object, const Parameter& parameter) {
    static const std::map<std::string, Number> kKnown = {
        {"nSamplesPerSec", kRate}, {"nChannels", kChannels},   {"nBitsPerSample", 16},
        {"nMilliSecs", 100},       {"nSamplesInBlocks", 1024}, {"nEnd", kFrames},
        {"nByteCount", 8000},      {"nSampleCount", kFrames},  {"nDeviceId", -1},
        {"niDevice", -1},          {"dwChannelMask", -1},      {"bStoreUndo", 1}};
    const std::string& name = parameter.name;
    if (parameter.kind == Kind::kInteger) return kKnown.contains(name) ? kKnown.at(name) : 0;
    if (parameter.kind == Kind::kReal) return std::bit_cast<std::int32_t>(120.0F);
    if (parameter.kind == Kind::kArray) return AsNumber(arrays_.emplace_back(Guarded()).get());
    if (parameter.kind == Kind::kObject) return AsNumber(LegalObject(parameter));
    const auto has = [&](const char* part) { return name.find(part) != std::string::npos; };
    const bool writes = As<IExportFilter>(object) || As<IWaveWriter>(object);
    return AsNumber(texts_.emplace_back(has("Extension")               ? L"wav"
                                        : !has("File") && !has("Path") ? L"name"
                                        : writes                       ? folder_.File(L"target.wav")
                                                                       : sample_));
  }

  // Returns an object with the parameter's interface, or null if the module has none.
  IUnknown* LegalObject(const Parameter& parameter) {
    const auto& [name, kind, type, iid] = parameter;
    ComPtr<IUnknown> object;
    if (iid == IID_IAudioReader || name == "punkAudioReader") {
      object = As<IUnknown>(Silence(kFrames));
    } else if (iid == IID_IAudioPool || iid == IID_IAudioWriter) {
      const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
      WriteTake(As<IAudioWriter>(pool).Get(), kTake);
      object = As<IUnknown>(pool);
    } else if (name == "punkExportFilter" || name == "punkImportFilter") {
      object =
          Create<IUnknown>(name == "punkExportFilter" ? CLSID_CWavExportFilter : CLSID_COggImport);
    }
    for (const Class& known : classes_) {
      const bool has_it = std::ranges::count(known.interfaces, iid) > 0;
      if (!object && has_it) object = Create<IUnknown>(known.clsid);
    }
    if (!object) return nullptr;
    ComPtr<IUnknown>& face = kept_.emplace_back();
    object->QueryInterface(iid, reinterpret_cast<void**>(face.GetAddressOf()));
    return face.Get();
  }

  const TemporaryFolder folder_;
  const std::wstring sample_ = folder_.File(L"sample.ogg");
  const OurConverter converter_;
  // These members keep the arguments of one case alive.
  std::vector<ComPtr<IUnknown>> kept_;
  std::list<Bstr> texts_;
  std::vector<SharedArray> arrays_;
  // Cancels every dialog that the module opens, as a user would.
  const std::jthread user_{[main = GetCurrentThreadId()](const std::stop_token& stop) {
    for (; !stop.stop_requested(); Sleep(20)) EnumThreadWindows(main, CloseDialog, 0);
  }};
};

TEST_P(ContractAbuse, InvalidArgumentsFailWithTheRightErrorAndTheObjectStillWorks) {
  const auto tested = std::ranges::find(classes_, GetParam(), &Class::name);
  ASSERT_NE(tested, classes_.end());
  std::optional<LeakWatch> watch;
  int open = 0;
  for (const State state : {kFresh, kSetUp, kOpen}) {
    for (const Method& method : tested->methods) {
      // Flushes the output, so that the last line before a crash or a hang names the method.
      std::printf("state %d, %s\n", state, method.FullName().c_str());
      std::fflush(stdout);
      for (auto& [name, changes, wanted, array] : CasesOf(method)) {
        // Skips three of four cases, because ending the thread of an open object takes time.
        if (state == kOpen && !array && ++open % 4 != 0) continue;
        if (MayWait(tested->name, method, state) && wanted != E_INVALIDARG) continue;
        const SAFEARRAY before = array ? *array : SAFEARRAY{};
        const HRESULT hr = RunOn(*tested, state, method, changes, !array && !changes.empty());
        EXPECT_TRUE(hr == wanted || wanted == kAny || (wanted == E_POINTER && hr == E_NOTIMPL))
            << method.FullName() << " returns 0x" << std::hex << hr << " for " << name;
        EXPECT_TRUE(!array || std::memcmp(&before, array.get(), sizeof before) == 0)
            << method.FullName() << " changes the array itself";
        ++index_;
      }
    }
    // Watches for leaks only after the first state, whose calls load libraries and start threads.
    if (!watch) watch.emplace();
  }
  EXPECT_GT(index_, 20);
  watch->AwaitAtMost(2, 20);
}

INSTANTIATE_TEST_SUITE_P(Classes, ContractAbuse, ::testing::Values(TESSALY_CLASSES),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace marlinda::testing
