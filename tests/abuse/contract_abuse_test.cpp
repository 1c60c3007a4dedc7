// Calls every method of one class with null pointers, numbers at and beyond every edge, texts of
// every kind and the matrix of sample arrays, in every state of the object. After each such call
// every method is called once more with proper arguments. The cases come from the type library.
// CTest runs the program once for each class.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <set>
#include <thread>
#include <variant>

#include "tests/abuse/hostile_arrays.h"
#include "tests/abuse/scene.h"
#include "tests/support/our_converter.h"
#include "tests/support/process_counts.h"

namespace marlinda::testing {
namespace {

using Number = std::int64_t;

// Stopping a thread costs a poll of 100 milliseconds, so only some cases start one afterwards.
constexpr int kCasesForOneStart = 64;

// What is passed for one parameter instead of what a good host would pass.
struct Change {
  std::size_t parameter;
  std::variant<std::nullptr_t, Number, float, const std::wstring*, const ArrayCase*> value;
};

struct Case {
  std::string name;
  std::vector<Change> changes;
  Verdict verdict = Verdict::kAny;

  bool HasArray() const {
    return changes.size() == 1 && std::holds_alternative<const ArrayCase*>(changes[0].value);
  }
};

const std::vector<Number>& NumbersOf(VARTYPE type) {
  constexpr Number kMin = std::numeric_limits<Number>::min();
  constexpr Number kMax = std::numeric_limits<Number>::max();
  static const std::vector<Number> kShort = {-1, 0, 1, 2, 7, 8, 24, 25, 32, 33, 32767, -32768};
  static const std::vector<Number> kLong = {
      -1, 0, 1, 2, 1023, 65535, 65536, 384000, 1 << 24, 1 << 30, 2147483647, -2147483648LL};
  static const std::vector<Number> kWide = {
      -1,           0,        1,           2,    999,  1000,    1001, 1LL << 31, kMax / 8,
      kMax / 4 + 1, kMax / 2, kMax - 1000, kMax, kMin, kMin + 1};
  return type == VT_I8 ? kWide : type == VT_I2 || type == VT_BOOL ? kShort : kLong;
}

const std::vector<std::pair<std::string, std::wstring>>& Texts() {
  static const std::vector<std::pair<std::string, std::wstring>> texts = {
      {"empty", L""},
      {"with a NUL inside", std::wstring(L"C:\\a\0b.ogg", 10)},
      {"a million characters long", std::wstring(1 << 20, L'x')},
      {"outside the code page", L"\x97f3\x697d\x0416\xd83c\xdfb5"},
      {"half a surrogate pair", L"\xd800 \xdc00\xdc00"},
      {"full of percent signs", L"%s%n%1!s!%%"},
      {"a folder", L"C:\\"},
      {"a wild card", L"*?<>|\""},
  };
  return texts;
}

// Methods for which no object has a meaning of its own.
const std::set<std::string> kTakeNoObject = {
    "IEditedAudio::InsertSegment", "IEditedAudio::AppendSegment", "IWaveWriter::SetWriteThrough",
    "IImportFilter::Initialize"};
const std::set<std::string> kStart = {"Start", "StartScrub", "Play", "ShowSettingsDlg"};
// The segment iteration lends its readers.
const std::set<std::string> kLend = {"GetFirstSegment", "GetNextSegment"};

std::vector<Case> CasesOf(const Method& method) {
  std::vector<Case> cases = {{"as it should be", {}}};
  std::vector<std::size_t> numbers;
  for (std::size_t p = 0; p < method.parameters.size(); ++p) {
    const Parameter& parameter = method.parameters[p];
    const auto add = [&](const std::string& text, auto value, Verdict verdict = Verdict::kAny) {
      cases.push_back({parameter.name + " " + text, {{p, value}}, verdict});
    };
    switch (parameter.kind) {
      case Kind::kOut:
        add("null", nullptr, Verdict::kPointer);
        break;
      case Kind::kObject:
        add("null", nullptr,
            kTakeNoObject.contains(method.FullName()) ? Verdict::kAny : Verdict::kPointer);
        break;
      case Kind::kInteger:
        numbers.push_back(p);
        for (const Number number : NumbersOf(parameter.type)) add(std::to_string(number), number);
        break;
      case Kind::kReal:
        for (const float real : {0.0F, -1.0F, std::numeric_limits<float>::infinity(),
                                 std::numeric_limits<float>::quiet_NaN()}) {
          add(std::to_string(real), real);
        }
        break;
      case Kind::kText:
        add("null", nullptr);
        for (const auto& [name, text] : Texts()) add(name, &text);
        break;
      case Kind::kArray:
        for (const ArrayCase& array : ArrayMatrix()) add(array.name, &array, array.verdict);
        break;
    }
  }
  if (numbers.size() < 2) return cases;
  // Sums, differences and products of these overflow.
  constexpr Number kWide = std::numeric_limits<Number>::max();
  for (const auto& [first, others] :
       {std::pair{kWide, kWide}, std::pair{kWide, Number{-1}}, std::pair{~kWide, kWide},
        std::pair{kWide / 2 + 1, kWide}, std::pair{Number{-1}, Number{1}}}) {
    Case& all = cases.emplace_back(Case{"all " + std::to_string(first), {}});
    for (const std::size_t p : numbers) {
      const int unused = method.parameters[p].type == VT_I8 ? 0 : 32;
      all.changes.push_back({p, (p == numbers.front() ? first : others) >> unused});
    }
  }
  return cases;
}

// Calls that wait: for a device to take or deliver samples, or for a source that is not
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

// The arguments of one call, and a look at them after it.
class Call {
 public:
  Call(Scene& scene, IUnknown* object, const Method& method, const std::vector<Change>& changes)
      : method_(method), values_(method.parameters.size()), outs_(values_.size()) {
    for (std::size_t p = 0; p < values_.size(); ++p) {
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
      types.push_back(V_VT(arguments.emplace_back(&value)));
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
    for (const auto& [array, before] : arrays_) {
      if (std::memcmp(array.get(), &before, sizeof before) != 0) wrong += "a changed array; ";
    }
    for (std::size_t p = 0; p < outs_.size(); ++p) {
      const Parameter& parameter = method_.parameters[p];
      if (parameter.kind != Kind::kOut) continue;
      const auto beyond = std::span(outs_[p].bytes).subspan(SizeOf(parameter.type));
      if (std::ranges::count(beyond, kUntouched) != std::ssize(beyond)) {
        wrong += parameter.name + " was written beyond its size; ";
      }
      if (!HandsOut(parameter)) continue;
      void* pointer = nullptr;
      std::memcpy(&pointer, outs_[p].bytes, sizeof pointer);
      if (pointer == nullptr) continue;
      if (FAILED(hr)) {
        wrong += parameter.name + " was handed out nevertheless; ";
      } else if (parameter.type == VT_BSTR) {
        SysFreeString(static_cast<BSTR>(pointer));
      } else if (!kLend.contains(method_.name)) {
        static_cast<IUnknown*>(pointer)->Release();
      }
    }
    return wrong;
  }

 private:
  static constexpr unsigned char kUntouched = 0xA5;
  struct Out {
    alignas(16) unsigned char bytes[32];
  };

  static bool HandsOut(const Parameter& parameter) {
    return parameter.type == VT_BSTR || parameter.type == VT_UNKNOWN;
  }
  static std::size_t SizeOf(VARTYPE type) {
    if (type == VT_BSTR || type == VT_UNKNOWN) return sizeof(void*);
    return type == VT_I8 ? 8 : type == VT_I2 || type == VT_BOOL ? 2 : 4;
  }

  void Set(std::size_t p, VARTYPE type, Number number) {
    V_VT(&values_[p]) = type;
    V_I8(&values_[p]) = number;  // of which the call takes the low bytes
  }
  // An integer of a pointer's size, whatever it points to.
  void SetPointer(std::size_t p, const void* pointer) {
    Set(p, sizeof pointer == 8 ? VT_I8 : VT_I4, reinterpret_cast<INT_PTR>(pointer));
  }

  void Fill(Scene& scene, IUnknown* object, std::size_t p, const Change* change) {
    const Parameter& parameter = method_.parameters[p];
    std::ranges::fill(outs_[p].bytes, kUntouched);
    if (HandsOut(parameter)) std::memset(outs_[p].bytes, 0, sizeof(void*));
    if (change != nullptr && std::holds_alternative<std::nullptr_t>(change->value)) {
      return SetPointer(p, nullptr);
    }
    switch (parameter.kind) {
      case Kind::kOut:
        return SetPointer(p, outs_[p].bytes);
      case Kind::kObject:
        return SetPointer(p, scene.LegalObject(parameter));
      case Kind::kInteger:
        return Set(
            p, parameter.type,
            change != nullptr ? std::get<Number>(change->value) : Scene::LegalNumber(parameter));
      case Kind::kReal:
        V_VT(&values_[p]) = VT_R4;
        V_R4(&values_[p]) = change != nullptr ? std::get<float>(change->value) : 120.0F;
        return;
      case Kind::kText: {
        const std::wstring text = change != nullptr ? *std::get<const std::wstring*>(change->value)
                                                    : scene.LegalText(parameter, object);
        texts_.push_back(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
        return SetPointer(p, texts_.back());
      }
      case Kind::kArray: {
        SharedArray array =
            change != nullptr ? std::get<const ArrayCase*>(change->value)->make() : Guarded();
        if (array != nullptr) arrays_.emplace_back(array, *array);
        return SetPointer(p, array.get());
      }
    }
  }

  const Method& method_;
  std::vector<VARIANTARG> values_;
  std::vector<Out> outs_;
  std::vector<BSTR> texts_;
  std::vector<std::pair<SharedArray, SAFEARRAY>> arrays_;
};

// Closes every dialog that the module opens, as a user who changes his mind.
class ImpatientUser {
 private:
  static BOOL CALLBACK Close(HWND window, LPARAM) {
    wchar_t name[16] = {};
    GetClassNameW(window, name, 16);
    if (std::wstring(name) == L"#32770") PostMessageW(window, WM_COMMAND, IDCANCEL, 0);
    return TRUE;
  }

  std::jthread thread_{[main = GetCurrentThreadId()](const std::stop_token& stop) {
    for (; !stop.stop_requested(); Sleep(20)) EnumThreadWindows(main, Close, 0);
  }};
};

class ContractAbuse : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    Check(CopyFileW(TESSALY_SAMPLE_OGG, sample_.c_str(), TRUE) ? S_OK : LastErrorResult());
    // Some of the texts are relative file names.
    SetCurrentDirectoryW(folder_.path().c_str());
  }
  void TearDown() override { SetCurrentDirectoryW(L"C:\\"); }

  bool IsAsItShouldBe(HRESULT hr, const Class& tested, State state, const Method& method,
                      Verdict verdict) {
    switch (verdict) {
      case Verdict::kPointer:
        return hr == E_POINTER || hr == E_NOTIMPL;
      case Verdict::kInvalid:
        return hr == E_INVALIDARG;
      case Verdict::kFail:
        return FAILED(hr);
      case Verdict::kAsTheProper:
        return hr == RunOn(tested, state, method, {}, false);
      default:
        return true;
    }
  }

  // On a new object, so that each case stands for itself.
  HRESULT RunOn(const Class& tested, State state, const Method& method,
                const std::vector<Change>& changes, bool and_go_on) {
    Scene scene(folder_.path(), sample_, classes_);
    const auto object = Create<IUnknown>(tested.clsid);
    scene.Bring(object.Get(), state);
    const HRESULT hr = CallOnce(scene, object.Get(), method, changes);
    if (!and_go_on || changes.empty()) return hr;
    for (const Method& next : tested.methods) {
      if (MayWait(tested.name, next, State::kOpen)) continue;
      if (kStart.contains(next.name) && index_ % kCasesForOneStart != 0) continue;
      CallOnce(scene, object.Get(), next, {});
    }
    return hr;
  }

  HRESULT CallOnce(Scene& scene, IUnknown* object, const Method& method,
                   const std::vector<Change>& changes) {
    ComPtr<IUnknown> face;
    Check(object->QueryInterface(method.iid, reinterpret_cast<void**>(face.GetAddressOf())));
    Call call(scene, object, method, changes);
    const HRESULT hr = call.Make(face.Get());
    const std::string wrong = call.Examine(hr);
    EXPECT_EQ(wrong, "") << "in " << method.FullName() << ", 0x" << std::hex << hr;
    return hr;
  }

  const std::vector<Class> classes_ = ClassesOfTheModule();
  const TemporaryFolder folder_;
  const std::wstring sample_ = folder_.File(L"sample.ogg");
  const ImpatientUser user_;
  const OurConverter converter_;
  int index_ = 0;
};

TEST_P(ContractAbuse, IsAnsweredAndTheObjectWorksAfterwards) {
  constexpr int kCasesToWarmUp = 40;  // they load libraries and start threads that stay
  const auto tested = std::ranges::find(classes_, GetParam(), &Class::name);
  ASSERT_NE(tested, classes_.end());
  std::optional<LeakWatch> watch;
  int open = 0;
  for (const auto& [state, name] : {std::pair{State::kFresh, "fresh, "},
                                    {State::kSetUp, "set up, "},
                                    {State::kOpen, "open, "}}) {
    for (const Method& method : tested->methods) {
      // The last line before a crash or a hang names the method.
      std::printf("%s%s\n", name, method.FullName().c_str());
      std::fflush(stdout);
      for (const Case& test : CasesOf(method)) {
        // Each open object costs the end of its thread.
        if (state == State::kOpen && !test.HasArray() && ++open % 4 != 0) continue;
        if (MayWait(tested->name, method, state) && test.verdict != Verdict::kInvalid) continue;
        SCOPED_TRACE(test.name);
        const HRESULT hr = RunOn(*tested, state, method, test.changes, !test.HasArray());
        EXPECT_TRUE(IsAsItShouldBe(hr, *tested, state, method, test.verdict))
            << method.FullName() << " returns 0x" << std::hex << hr;
        if (++index_ == kCasesToWarmUp) watch.emplace();
      }
    }
  }
  EXPECT_GT(index_, 20);
  if (watch) watch->AwaitAtMost(2, 20);
}

INSTANTIATE_TEST_SUITE_P(Classes, ContractAbuse, ::testing::Values(TESSALY_CLASSES),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace marlinda::testing
