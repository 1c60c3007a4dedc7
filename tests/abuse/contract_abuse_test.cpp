// Calls every method of every class as no host should: out-parameters that are null, numbers at and
// beyond every edge, texts of every kind and the whole matrix of sample arrays, in every state of
// the object, and after each such call every method once more as a good host would. The cases come
// from the type library. They run in child processes, so that a crash or a hang is one failure with
// a name, and the run goes on after it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <thread>

#include "core/handle.h"
#include "tests/abuse/child_runs.h"
#include "tests/abuse/contract_model.h"
#include "tests/abuse/hostile_arrays.h"
#include "tests/abuse/scene.h"
#include "tests/support/our_converter.h"
#include "tests/support/process_counts.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {
namespace {

using Number = std::int64_t;
using Limits64 = std::numeric_limits<Number>;

constexpr ULONGLONG kLongestCallMilliSecs = 10000;
constexpr std::size_t kChildrenAtOnce = 3;
// What starts a thread costs the 100 milliseconds of a poll to stop it again, so not every case
// goes on to it.
constexpr LONG64 kCasesForOneStart = 16;
constexpr std::size_t kProperElements = 2048;

// --- the cases
// ---------------------------------------------------------------------------------------

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
  std::optional<Verdict> verdict;  // kFail: E_POINTER is wanted where a pointer is null
  bool null_out = false;
  bool pair = false;
};

const std::vector<Number>& NumbersOf(VARTYPE type) {
  static const std::vector<Number> small = {-1, 0,  1,  2,  3,   7,     8,     9,
                                            24, 25, 32, 33, 256, 32767, -32768};
  static const std::vector<Number> medium = {
      -1,    0,     1,      2,       3,       100,        1023,        65535,
      65536, 32768, 384000, 1 << 24, 1 << 30, 2147483647, -2147483647, -2147483648LL};
  static const std::vector<Number> large = {-1,
                                            0,
                                            1,
                                            2,
                                            99,
                                            999,
                                            1000,
                                            1001,
                                            2147483648LL,
                                            4294967296LL,
                                            Limits64::max() / 8,
                                            Limits64::max() / 4 + 1,
                                            Limits64::max() / 2,
                                            Limits64::max() - 1000,
                                            Limits64::max() - 1,
                                            Limits64::max(),
                                            Limits64::min(),
                                            Limits64::min() + 1};
  switch (type) {
    case VT_I2:
    case VT_BOOL:
      return small;
    case VT_I8:
      return large;
    default:
      return medium;
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
        cases.push_back({parameter.name + " null", {{p, What::kNull}}, std::nullopt});
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

// --- the rules that are not the general ones
// --------------------------------------------------------

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

// A collector only: it has no answer, so it asks for no place to put it.
bool IsNotImplemented(HRESULT hr) { return hr == E_NOTIMPL; }

// The segment iteration lends its readers.
bool Lends(const Method& method) {
  return method.FullName() == "IEditedAudio::GetFirstSegment" ||
         method.FullName() == "IEditedAudio::GetNextSegment";
}

bool ReadsFiles(IUnknown* object) {
  return As<IExportFilter>(object) == nullptr && As<IWaveWriter>(object) == nullptr;
}

// --- one call
// -----------------------------------------------------------------------------------------

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

// --- the child
// ----------------------------------------------------------------------------------------

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

// Stands in for an object of the module to show that this test sees each kind of fault.
ComPtr<IUnknown> FaultyReader(const std::string& fault) {
  ComPtr<RampSource> reader = RampSource::Make('A');
  reader->read_result = E_FAIL;  // its samples are not made for positions like these
  reader->on_read = [fault](SAFEARRAY* array) {
    if (array == nullptr || array->cDims != 1 || array->rgsabound[0].cElements != kProperElements) {
      return;
    }
    auto* const samples = static_cast<volatile float*>(array->pvData);
    if (fault == "+beyond") samples[kProperElements] = 0;
    if (fault == "+before") samples[-1] = 0;
    if (fault == "+locks") ++array->cLocks;
    if (fault == "+hangs") Sleep(INFINITE);
  };
  return As<IUnknown>(reader.Get());
}

class Child {
 public:
  Child(SharedReport& report, std::wstring folder, std::wstring sample, const std::string& name)
      : report_(report),
        folder_(std::move(folder)),
        sample_(std::move(sample)),
        name_(name.substr(0, name.find('+'))),
        fault_(name.substr(name_.size())) {
    for (Class& known : classes_) {
      if (known.name == name_) class_ = &known;
    }
    if (class_ == nullptr) throw std::runtime_error("no such class");
    if (!fault_.empty()) {
      std::erase_if(class_->methods, [](const Method& method) {
        return method.FullName() != "IAudioReader::ReadAudio";
      });
    }
  }

  // The cases from number `first` on.
  void Run(LONG64 first) {
    LONG64 index = 0;
    unsigned handles = 0;
    unsigned threads = 0;
    std::vector<std::pair<unsigned, std::string>> after_method;
    for (const State state : kStates) {
      for (const Method& method : class_->methods) {
        for (const Case& test : CasesOf(method)) {
          // What two numbers make of each other does not depend on the state.
          if (test.pair && state != State::kSetUp) continue;
          if (index++ < first) continue;
          report_->index = index - 1;
          Name(state, method, test.name);
          RunCase(state, method, test);
          // The first cases load libraries and start what stays.
          if (index == first + 40) {
            handles = CountHandles();
            threads = CountThreads();
          }
        }
        if (handles != 0) after_method.emplace_back(CountHandles(), report_->running);
      }
    }
    std::snprintf(report_->running, sizeof report_->running, "%s at the end", name_.c_str());
    if (handles == 0) return;
    // Threads that have done their work may still be on their way out.
    for (int i = 0; i < 100 && (CountHandles() > handles + 20 || CountThreads() > threads + 2);
         ++i) {
      Sleep(50);
    }
    if (CountHandles() > handles + 20) {
      for (std::size_t i = 1; i < after_method.size(); ++i) {
        if (after_method[i].first <= after_method[i - 1].first) continue;
        report_.Fail(std::to_string(after_method[i - 1].first) + " handles became " +
                     std::to_string(after_method[i].first) + " before " + after_method[i].second);
      }
      report_.Fail(std::to_string(handles) + " handles have become " +
                   std::to_string(CountHandles()));
    }
    if (CountThreads() > threads + 2) {
      report_.Fail(std::to_string(threads) + " threads have become " +
                   std::to_string(CountThreads()));
    }
  }

 private:
  void Name(State state, const Method& method, const std::string& what) {
    std::snprintf(report_->running, sizeof report_->running, "%s (%s) %s, %s", name_.c_str(),
                  NameOf(state), method.FullName().c_str(), what.c_str());
  }

  HRESULT CallOnce(Scene& scene, IUnknown* object, const Method& method,
                   const std::vector<Change>& changes) {
    ComPtr<IUnknown> face;
    Check(object->QueryInterface(method.iid, reinterpret_cast<void**>(face.GetAddressOf())));
    Call call(scene, object, method, changes);
    report_.Count();
    const ULONGLONG begun = GetTickCount64();
    const HRESULT hr = call.Make(face.Get());
    const ULONGLONG took = GetTickCount64() - begun;
    std::string wrong = call.Examine(hr);
    if (took > 1000) {
      std::printf("%s: %s took %llu ms\n", report_->running, method.FullName().c_str(), took);
      std::fflush(stdout);
    }
    if (took > kLongestCallMilliSecs) {
      wrong += method.FullName() + " took " + std::to_string(took) + " ms; ";
    }
    if (!wrong.empty()) report_.Fail(wrong + "result " + Hex(hr));
    return hr;
  }

  void RunCase(State state, const Method& method, const Case& test) {
    if (MayWait(name_, method, state) && test.verdict != Verdict::kRefuse) return;
    const HRESULT hr = RunOn(state, method, test.changes, true);
    if (test.null_out && hr != E_POINTER && !IsNotImplemented(hr)) {
      report_.Fail("a null out-pointer gave " + Hex(hr));
    }
    if (!test.verdict) return;
    switch (*test.verdict) {
      case Verdict::kRefuse:
        if (hr != E_INVALIDARG) report_.Fail("gave " + Hex(hr) + " instead of E_INVALIDARG");
        break;
      case Verdict::kFail:
        if (SUCCEEDED(hr)) report_.Fail("gave " + Hex(hr));
        break;
      case Verdict::kAsTheProper: {
        const HRESULT proper = RunOn(state, method, {}, false);
        if (hr != proper) report_.Fail("gave " + Hex(hr) + ", a proper array " + Hex(proper));
        break;
      }
      case Verdict::kAny:
        break;
    }
  }

  // On an object of its own, so that each case stands for itself.
  HRESULT RunOn(State state, const Method& method, const std::vector<Change>& changes,
                bool and_go_on) {
    Scene scene(folder_, sample_, classes_);
    const auto object = fault_.empty() ? Create<IUnknown>(class_->clsid) : FaultyReader(fault_);
    scene.Bring(object.Get(), state);
    const HRESULT hr = CallOnce(scene, object.Get(), method, changes);
    const bool numbers = std::ranges::any_of(
        changes, [](const Change& change) { return change.what != Change::What::kArray; });
    if (and_go_on && numbers) {
      // Whatever it was told, the object goes on.
      for (const Method& next : class_->methods) {
        if (MayWait(name_, next, State::kOpen)) continue;
        if (Starts(next) && report_->index % kCasesForOneStart != 0) continue;
        CallOnce(scene, object.Get(), next, {});
      }
    }
    return hr;
  }

  SharedReport& report_;
  const std::wstring folder_;
  const std::wstring sample_;
  const std::string name_;
  const std::string fault_;
  std::vector<Class> classes_ = ClassesOfTheModule();
  Class* class_ = nullptr;
};

void RunCases(const ChildTask& task, SharedReport& report) {
  const ImpatientUser user;
  // Looking for a class that is not there makes some versions of Wine forget two handles.
  const OurConverter converter;
  // Some of the texts are names of files.
  SetCurrentDirectoryW(task.arguments.at(0).c_str());
  Child(report, task.arguments.at(0), task.arguments.at(1), task.name).Run(task.first);
}

// --- the parent
// ---------------------------------------------------------------------------------------

Outcome RunClass(const std::string& name, DWORD hang_seconds = 60, int most_restarts = 12) {
  const TemporaryFolder folder;
  if (CopyFileW(TESSALY_SAMPLE_OGG, folder.File(L"sample.ogg").c_str(), TRUE) == FALSE) {
    throw HResultError(LastErrorResult());
  }
  return RunInChildren(name, {folder.path(), folder.File(L"sample.ogg")}, hang_seconds,
                       most_restarts);
}

// The outcomes of all classes that were asked for, several at a time.
std::map<std::string, std::optional<Outcome>>& Outcomes() {
  static std::map<std::string, std::optional<Outcome>> outcomes;
  return outcomes;
}

class OneClass : public ::testing::Test {
 public:
  explicit OneClass(std::string name) : name_(std::move(name)) {}

  static void SetUpTestSuite() {
    std::vector<std::string> names;
    const ::testing::TestSuite& suite = *::testing::UnitTest::GetInstance()->current_test_suite();
    for (const Class& known : ClassesOfTheModule()) {
      for (int i = 0; i < suite.total_test_count(); ++i) {
        const ::testing::TestInfo& test = *suite.GetTestInfo(i);
        if (!test.should_run() || test.name() != known.name) continue;
        Outcomes()[known.name] = std::nullopt;
        // A class that this version does not offer yet is left out.
        ComPtr<IUnknown> probe;
        if (SUCCEEDED(CreateInstance(known.clsid, probe))) names.push_back(known.name);
      }
    }
    std::atomic<std::size_t> next = 0;
    std::vector<std::thread> workers;
    for (std::size_t i = 0; i < kChildrenAtOnce; ++i) {
      workers.emplace_back([&] {
        for (std::size_t mine = next++; mine < names.size(); mine = next++) {
          try {
            Outcomes().at(names[mine]) = RunClass(names[mine]);
          } catch (const HResultError& error) {
            Outcomes().at(names[mine]) = Outcome{0, {"no child: " + Hex(error.code())}};
          } catch (const std::exception& error) {
            Outcomes().at(names[mine]) = Outcome{0, {error.what()}};
          }
        }
      });
    }
    for (std::thread& worker : workers) worker.join();
  }

  void TestBody() override {
    const auto& outcome = Outcomes().at(name_);
    ASSERT_TRUE(outcome) << "the class is not offered";
    for (const std::string& failure : outcome->failures) ADD_FAILURE() << failure;
    EXPECT_GT(outcome->calls, 0);
    std::printf("%s: %lld calls\n", name_.c_str(), static_cast<long long>(outcome->calls));
  }

 private:
  const std::string name_;
};

// A detector that cannot fire proves nothing.
TEST(ContractAbuseItself, SeesAccessesOutsideTheSamplesLocksAndHangs) {
  const std::pair<const char*, const char*> kFaults[] = {
      {"beyond", "crashed with 0xC00000"},
      {"before", "crashed with 0xC00000"},
      {"locks", "lock count has changed"},
      {"hangs", "hung: CNullReader (fresh) IAudioReader::ReadAudio, "},
      {"none", "instead of E_INVALIDARG"},
  };
  for (const auto& [fault, expected] : kFaults) {
    SCOPED_TRACE(fault);
    const Outcome outcome = RunClass(std::string("CNullReader+") + fault, 2, 2);
    EXPECT_THAT(outcome.failures, ::testing::Contains(::testing::HasSubstr(expected)));
  }
}

void RegisterTests() {
  for (const Class& known : ClassesOfTheModule()) {
    ::testing::RegisterTest("ContractAbuse", known.name.c_str(), nullptr, nullptr, __FILE__,
                            __LINE__,
                            [name = known.name]() -> OneClass* { return new OneClass(name); });
  }
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  return marlinda::testing::AbuseMain(argc, argv, marlinda::testing::RunCases,
                                      marlinda::testing::RegisterTests);
}
