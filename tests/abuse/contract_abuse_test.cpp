// Calls every method of one class with null pointers, numbers at and beyond every edge, texts of
// every kind and the matrix of sample arrays, in every state of the object. After each such call
// every method is called once more with proper arguments. The cases come from the type library.
// CTest runs the program once for each class.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <set>

#include "core/handle.h"
#include "tests/abuse/hostile_arrays.h"
#include "tests/abuse/scene.h"
#include "tests/support/contract_model.h"
#include "tests/support/our_converter.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using Number = std::int64_t;
using Limits64 = std::numeric_limits<Number>;

// Stopping a thread costs a poll of 100 milliseconds, so only some cases start one afterwards.
constexpr int kCasesForOneStart = 64;
constexpr std::size_t kProperElements = 2048;

// What is passed for one parameter instead of what a good host would pass.
struct Change {
  enum class What { kNull, kNumber, kReal, kText, kArray };
  std::size_t parameter;
  What what;
  Number number = 0;
  float real = 0;
  std::size_t index = 0;  // of a text or an array of the matrix
};

struct Case {
  std::string name;
  std::vector<Change> changes;
  std::optional<Verdict> verdict;
  bool wants_e_pointer = false;
  bool pair = false;
};

std::vector<Number> NumbersOf(VARTYPE type) {
  switch (type) {
    case VT_I2:
    case VT_BOOL:
      return {-1, 0, 1, 2, 3, 7, 8, 9, 24, 25, 32, 33, 256, 32767, -32768};
    case VT_I8:
      return {-1,
              0,
              1,
              2,
              99,
              999,
              1000,
              1001,
              1LL << 31,
              1LL << 32,
              Limits64::max() / 8,
              Limits64::max() / 4 + 1,
              Limits64::max() / 2,
              Limits64::max() - 1000,
              Limits64::max() - 1,
              Limits64::max(),
              Limits64::min(),
              Limits64::min() + 1};
    default:
      return {-1,    0,     1,      2,       3,       100,        1023,        65535,
              65536, 32768, 384000, 1 << 24, 1 << 30, 2147483647, -2147483647, -2147483648LL};
  }
}

// For pairs: sums, differences and products of any two of these overflow.
std::array<Number, 5> ExtremesOf(VARTYPE type) {
  switch (type) {
    case VT_I2:
    case VT_BOOL:
      return {-32768, -1, 0, 1, 32767};
    case VT_I8:
      return {Limits64::min(), -1, 0, Limits64::max() / 2 + 1, Limits64::max()};
    default:
      return {-2147483648LL, -1, 0, 65536, 2147483647};
  }
}

// Null is passed by the changes that say so.
const std::vector<std::pair<std::string, std::wstring>>& Texts() {
  static const std::vector<std::pair<std::string, std::wstring>> texts = {
      {"empty", L""},
      {"with a NUL inside", std::wstring(L"C:\\a\0b.ogg", 10)},
      {"beginning with a NUL", std::wstring(L"\0a", 2)},
      {"a million characters long", std::wstring(1 << 20, L'x')},
      {"a path longer than any", L"C:\\" + std::wstring(40000, L'a') + L".ogg"},
      {"outside the code page", L"\x97f3\x697d\x0416\xd83c\xdfb5"},
      {"half a surrogate pair", std::wstring(L"\xd800 \xdc00\xdc00", 4)},
      {"full of percent signs", L"%s%n%1!s!%%"},
      {"a device", L"NUL"},
      {"a folder", L"C:\\"},
      {"a wild card", L"*?<>|\""},
  };
  return texts;
}

// Methods for which no object has a meaning of its own.
bool TakesNoObject(const Method& method) {
  static const std::set<std::string> kMethods = {
      "IEditedAudio::InsertSegment", "IEditedAudio::AppendSegment", "IWaveWriter::SetWriteThrough",
      "IImportFilter::Initialize"};
  return kMethods.contains(method.FullName());
}

std::vector<Case> CasesOf(const Method& method) {
  using What = Change::What;
  std::vector<Case> cases = {{"as it should be", {}, std::nullopt}};
  std::vector<std::size_t> numbers;
  for (std::size_t p = 0; p < method.parameters.size(); ++p) {
    const Parameter& parameter = method.parameters[p];
    switch (parameter.kind) {
      case Kind::kOut:
        cases.push_back({parameter.name + " null", {{p, What::kNull}}, std::nullopt, true});
        break;
      case Kind::kObject:
        cases.push_back(
            {parameter.name + " null", {{p, What::kNull}}, std::nullopt, !TakesNoObject(method)});
        break;
      case Kind::kInteger:
        numbers.push_back(p);
        for (const Number number : NumbersOf(parameter.type)) {
          cases.push_back({parameter.name + " = " + std::to_string(number),
                           {{p, What::kNumber, number}},
                           std::nullopt});
        }
        break;
      case Kind::kReal:
        for (const float real : {0.0F, -1.0F, std::numeric_limits<float>::infinity(),
                                 std::numeric_limits<float>::quiet_NaN()}) {
          cases.push_back({parameter.name + " = " + std::to_string(real),
                           {{p, What::kReal, 0, real}},
                           std::nullopt});
        }
        break;
      case Kind::kText:
        cases.push_back({parameter.name + " null", {{p, What::kNull}}, std::nullopt});
        for (std::size_t i = 0; i < Texts().size(); ++i) {
          cases.push_back(
              {parameter.name + " " + Texts()[i].first, {{p, What::kText, 0, 0, i}}, std::nullopt});
        }
        break;
      case Kind::kArray:
        for (std::size_t i = 0; i < ArrayMatrix().size(); ++i) {
          cases.push_back({parameter.name + " " + ArrayMatrix()[i].name,
                           {{p, What::kArray, 0, 0, i}},
                           ArrayMatrix()[i].verdict});
        }
        break;
    }
  }
  for (std::size_t a = 0; a < numbers.size(); ++a) {
    for (std::size_t b = a + 1; b < numbers.size(); ++b) {
      const Parameter& first = method.parameters[numbers[a]];
      const Parameter& second = method.parameters[numbers[b]];
      for (const Number x : ExtremesOf(first.type)) {
        for (const Number y : ExtremesOf(second.type)) {
          cases.push_back({first.name + " = " + std::to_string(x) + ", " + second.name + " = " +
                               std::to_string(y),
                           {{numbers[a], What::kNumber, x}, {numbers[b], What::kNumber, y}},
                           std::nullopt,
                           false,
                           true});
        }
      }
    }
  }
  return cases;
}

// Calls that wait by rule: for a device to take or deliver samples, or for a source that is not
// there.
bool MayWait(const std::string& class_name, const Method& method, State state) {
  const std::string name = method.FullName();
  if (class_name == "CAudioPlayback") {
    return state == State::kOpen && name == "IAudioWriter::WriteAudio";
  }
  if (name != "IAudioReader::ReadAudio") return false;
  if (class_name == "CAudioGrabber") return state == State::kOpen;
  return class_name == "CAudioConnector" && state != State::kSetUp;
}

bool Starts(const Method& method) {
  return method.name == "Start" || method.name == "StartScrub" || method.name == "Play" ||
         method.name == "ShowSettingsDlg";
}

// The segment iteration lends its readers.
bool Lends(const Method& method) {
  return method.FullName() == "IEditedAudio::GetFirstSegment" ||
         method.FullName() == "IEditedAudio::GetNextSegment";
}

bool ReadsFiles(IUnknown* object) {
  return As<IExportFilter>(object) == nullptr && As<IWaveWriter>(object) == nullptr;
}

constexpr unsigned char kUntouched = 0xA5;

// The arguments of one call, and what to look at after it.
class Call {
 public:
  Call(Scene& scene, IUnknown* object, const Method& method, const std::vector<Change>& changes)
      : method_(method) {
    const std::size_t count = method.parameters.size();
    values_.resize(count);
    outs_.resize(count);
    for (std::size_t p = 0; p < count; ++p) {
      const auto found = std::ranges::find(changes, p, &Change::parameter);
      Fill(scene, object, p, found == changes.end() ? nullptr : &*found);
    }
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    for (BSTR text : texts_) SysFreeString(text);
  }

  HRESULT Make(IUnknown* face) {
    std::vector<VARTYPE> types;
    std::vector<VARIANTARG*> arguments;
    for (VARIANTARG& value : values_) {
      types.push_back(V_VT(&value));
      arguments.push_back(&value);
    }
    VARIANT result = {};
    Check(DispCallFunc(face, method_.vtable_offset, CC_STDCALL, VT_I4,
                       static_cast<UINT>(types.size()), types.data(), arguments.data(), &result));
    return V_I4(&result);
  }

  // What is wrong after the call; empty when nothing is. Takes over what was handed out.
  std::string Examine(HRESULT hr) {
    std::string wrong;
    if (SUCCEEDED(hr) && hr != S_OK && hr != S_FALSE) wrong += "an unknown success; ";
    for (const ArrayState& state : arrays_) {
      const SAFEARRAY& now = *state.array;
      if (now.cLocks != state.before.cLocks) wrong += "the array's lock count has changed; ";
      if (now.pvData != state.before.pvData || now.cDims != state.before.cDims ||
          now.cbElements != state.before.cbElements ||
          now.rgsabound[0].cElements != state.before.rgsabound[0].cElements ||
          now.rgsabound[0].lLbound != state.before.rgsabound[0].lLbound) {
        wrong += "the array is another one; ";
      }
    }
    for (std::size_t p = 0; p < outs_.size(); ++p) {
      const Parameter& parameter = method_.parameters[p];
      if (parameter.kind != Kind::kOut) continue;
      Out& out = outs_[p];
      const std::size_t size = SizeOf(parameter.type);
      for (std::size_t i = size; i < sizeof out.bytes; ++i) {
        if (out.bytes[i] != kUntouched) {
          wrong += parameter.name + " was written beyond its size; ";
          break;
        }
      }
      void* pointer = nullptr;
      if (parameter.type == VT_BSTR || parameter.type == VT_UNKNOWN) {
        std::memcpy(&pointer, out.bytes, sizeof pointer);
        if (FAILED(hr) && pointer != nullptr)
          wrong += parameter.name + " was handed out all the same; ";
      }
      if (pointer == nullptr || FAILED(hr)) continue;
      if (parameter.type == VT_BSTR) SysFreeString(static_cast<BSTR>(pointer));
      if (parameter.type == VT_UNKNOWN && !Lends(method_))
        static_cast<IUnknown*>(pointer)->Release();
    }
    return wrong;
  }

 private:
  struct ArrayState {
    std::shared_ptr<SAFEARRAY> array;
    SAFEARRAY before;
  };
  struct Out {
    alignas(16) unsigned char bytes[32];
  };

  static std::size_t SizeOf(VARTYPE type) {
    switch (type) {
      case VT_I2:
      case VT_BOOL:
        return 2;
      case VT_I8:
        return 8;
      case VT_BSTR:
      case VT_UNKNOWN:
        return sizeof(void*);
      default:
        return 4;
    }
  }

  void SetPointer(std::size_t p, void* pointer) {
    // The pointer's own type, whatever it points to: only its size matters to the call.
    V_VT(&values_[p]) = sizeof(void*) == 8 ? VT_I8 : VT_I4;
    V_I8(&values_[p]) = 0;
    std::memcpy(&V_I8(&values_[p]), &pointer, sizeof pointer);
  }

  void SetNumber(std::size_t p, VARTYPE type, Number number) {
    V_VT(&values_[p]) = type;
    V_I8(&values_[p]) = 0;
    switch (SizeOf(type)) {
      case 2:
        V_I2(&values_[p]) = static_cast<SHORT>(number);
        break;
      case 4:
        V_I4(&values_[p]) = static_cast<LONG>(number);
        break;
      default:
        V_I8(&values_[p]) = number;
    }
  }

  void SetText(std::size_t p, const std::wstring& text) {
    texts_.push_back(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    SetPointer(p, texts_.back());
  }

  void SetArray(std::size_t p, std::shared_ptr<SAFEARRAY> array) {
    SetPointer(p, array.get());
    if (array != nullptr) {
      const SAFEARRAY before = *array;
      arrays_.push_back({std::move(array), before});
    }
  }

  void Fill(Scene& scene, IUnknown* object, std::size_t p, const Change* change) {
    const Parameter& parameter = method_.parameters[p];
    std::memset(outs_[p].bytes, kUntouched, sizeof outs_[p].bytes);
    if (parameter.type == VT_BSTR || parameter.type == VT_UNKNOWN) {
      std::memset(outs_[p].bytes, 0, sizeof(void*));
    }
    if (change != nullptr && change->what == Change::What::kNull) return SetPointer(p, nullptr);
    switch (parameter.kind) {
      case Kind::kOut:
        return SetPointer(p, outs_[p].bytes);
      case Kind::kObject:
        return SetPointer(p, scene.LegalObject(parameter));
      case Kind::kInteger:
        return SetNumber(p, parameter.type,
                         change != nullptr ? change->number : scene.LegalNumber(parameter));
      case Kind::kReal:
        V_VT(&values_[p]) = VT_R4;
        V_R4(&values_[p]) = change != nullptr ? change->real : 120.0F;
        return;
      case Kind::kText:
        return SetText(p, change != nullptr ? Texts()[change->index].second
                                            : scene.LegalText(parameter, ReadsFiles(object)));
      case Kind::kArray:
        return SetArray(p, change != nullptr ? ArrayMatrix()[change->index].make()
                                             : ProperArray(kProperElements));
    }
  }

  const Method& method_;
  std::vector<VARIANTARG> values_;
  std::vector<Out> outs_;
  std::vector<BSTR> texts_;
  std::vector<ArrayState> arrays_;
};

// Closes every dialog that the module opens, as a user who changes his mind.
class ImpatientUser {
 public:
  ImpatientUser() : thread_id_(GetCurrentThreadId()) {
    stop_.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    thread_.Reset(CreateThread(nullptr, 0, Run, this, 0, nullptr));
  }
  ImpatientUser(const ImpatientUser&) = delete;
  ImpatientUser& operator=(const ImpatientUser&) = delete;
  ~ImpatientUser() {
    SetEvent(stop_.get());
    WaitForSingleObject(thread_.get(), INFINITE);
  }

 private:
  static DWORD WINAPI Run(void* self) {
    auto* const user = static_cast<ImpatientUser*>(self);
    while (WaitForSingleObject(user->stop_.get(), 20) == WAIT_TIMEOUT) {
      EnumThreadWindows(user->thread_id_, Close, 0);
    }
    return 0;
  }
  static BOOL CALLBACK Close(HWND window, LPARAM) {
    wchar_t name[16] = {};
    GetClassNameW(window, name, 16);
    if (std::wstring(name) == L"#32770") PostMessageW(window, WM_COMMAND, IDCANCEL, 0);
    return TRUE;
  }

  const DWORD thread_id_;
  KernelHandle stop_;
  KernelHandle thread_;
};

// The case that runs, for the report of a crash.
std::string running;

LONG WINAPI NameTheCase(EXCEPTION_POINTERS* exception) {
  if (exception->ExceptionRecord->ExceptionCode >> 28 != 0xC) return EXCEPTION_CONTINUE_SEARCH;
  std::printf("exception %08lX in %s\n", exception->ExceptionRecord->ExceptionCode,
              running.c_str());
  std::fflush(stdout);
  return EXCEPTION_CONTINUE_SEARCH;
}

class Runner {
 public:
  explicit Runner(const Class& tested) : class_(tested) {
    sample_ = folder_.File(L"sample.ogg");
    Check(CopyFileW(TESSALY_SAMPLE_OGG, sample_.c_str(), TRUE) ? S_OK : LastErrorResult());
    // Some of the texts are relative file names.
    SetCurrentDirectoryW(folder_.path().c_str());
  }
  ~Runner() { SetCurrentDirectoryW(L"C:\\"); }

  void Run() {
    unsigned handles = 0;
    unsigned threads = 0;
    for (const State state : kStates) {
      for (const Method& method : class_.methods) {
        // The last line before a hang names the method.
        std::printf("%s, %s\n", NameOf(state), method.FullName().c_str());
        std::fflush(stdout);
        for (const Case& test : CasesOf(method)) {
          // The result of two numbers does not depend on the state.
          if (test.pair && state != State::kSetUp) continue;
          // Each open object costs the end of its thread.
          if (state == State::kOpen && !test.verdict && ++open_ % 4 != 0) continue;
          running = std::string(NameOf(state)) + ", " + method.FullName() + ", " + test.name;
          RunCase(state, method, test);
          // The first cases load libraries and start threads that stay.
          if (++index_ == 40) {
            handles = CountHandles();
            threads = CountThreads();
          }
        }
      }
    }
    if (index_ <= 40) return;
    AwaitAtMost(CountThreads, threads + 2, "threads");
    AwaitAtMost(CountHandles, handles + 20, "handles");
  }
  int calls() const { return calls_; }

 private:
  HRESULT CallOnce(Scene& scene, IUnknown* object, const Method& method,
                   const std::vector<Change>& changes) {
    ComPtr<IUnknown> face;
    Check(object->QueryInterface(method.iid, reinterpret_cast<void**>(face.GetAddressOf())));
    Call call(scene, object, method, changes);
    ++calls_;
    const HRESULT hr = call.Make(face.Get());
    const std::string wrong = call.Examine(hr);
    if (!wrong.empty()) Fail(method.FullName() + ": " + wrong, hr);
    return hr;
  }

  void RunCase(State state, const Method& method, const Case& test) {
    if (MayWait(class_.name, method, state) && test.verdict != Verdict::kRefuse) return;
    const HRESULT hr = RunOn(state, method, test.changes, true);
    if (test.wants_e_pointer && hr != E_POINTER && hr != E_NOTIMPL) Fail("not E_POINTER", hr);
    if (!test.verdict) return;
    if (*test.verdict == Verdict::kRefuse && hr != E_INVALIDARG) Fail("not E_INVALIDARG", hr);
    if (*test.verdict == Verdict::kFail && SUCCEEDED(hr)) Fail("no failure", hr);
    if (*test.verdict == Verdict::kAsTheProper && hr != RunOn(state, method, {}, false)) {
      Fail("not what a proper array gives", hr);
    }
  }

  // On a new object, so that each case stands for itself.
  HRESULT RunOn(State state, const Method& method, const std::vector<Change>& changes,
                bool and_go_on) {
    Scene scene(folder_.path(), sample_, classes_);
    const auto object = Create<IUnknown>(class_.clsid);
    scene.Bring(object.Get(), state);
    const HRESULT hr = CallOnce(scene, object.Get(), method, changes);
    const bool is_array = std::ranges::any_of(
        changes, [](const Change& change) { return change.what == Change::What::kArray; });
    if (!and_go_on || is_array || changes.empty()) return hr;
    for (const Method& next : class_.methods) {
      if (MayWait(class_.name, next, State::kOpen)) continue;
      if (Starts(next) && index_ % kCasesForOneStart != 0) continue;
      CallOnce(scene, object.Get(), next, {});
    }
    return hr;
  }

  void Fail(const std::string& what, HRESULT hr) const {
    ADD_FAILURE() << running << ": " << what << ", result 0x" << std::hex << hr;
  }

  const Class& class_;
  const TemporaryFolder folder_;
  std::wstring sample_;
  const std::vector<Class> classes_ = ClassesOfTheModule();
  int index_ = 0;
  int open_ = 0;
  int calls_ = 0;
};

class ContractAbuse : public ::testing::TestWithParam<std::string> {};

TEST_P(ContractAbuse, IsAnsweredAndTheObjectWorksAfterwards) {
  const std::vector<Class> classes = ClassesOfTheModule();
  const auto found = std::ranges::find(classes, GetParam(), &Class::name);
  ASSERT_NE(found, classes.end());
  void* const handler = AddVectoredExceptionHandler(1, NameTheCase);
  {
    const ImpatientUser user;
    const OurConverter converter;
    Runner runner(*found);
    runner.Run();
    std::printf("%d calls\n", runner.calls());
    EXPECT_GT(runner.calls(), 50);
  }
  RemoveVectoredExceptionHandler(handler);
}

INSTANTIATE_TEST_SUITE_P(Classes, ContractAbuse, ::testing::Values(TESSALY_CLASSES),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace marlinda::testing
