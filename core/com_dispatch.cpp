#include "core/com_dispatch.h"

#include <marlinda.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

#include "core/com_call.h"
#include "core/com_ptr.h"
#include "core/type_library.h"

namespace marlinda {
namespace {

using Role = Parameter::Role;

// Owns a value of a parameter's type. The value is either an argument after coercion or the
// method's output.
class Slot {
 public:
  Slot() noexcept { VariantInit(&value_); }
  ~Slot() { VariantClear(&value_); }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  VARIANT& value() noexcept { return value_; }

  void PrepareFor(VARTYPE type) noexcept {
    V_I8(&value_) = 0;
    V_VT(&value_) = type;
  }
  bool HoldsInterface() noexcept {
    return (V_VT(&value_) == VT_DISPATCH || V_VT(&value_) == VT_UNKNOWN) &&
           V_UNKNOWN(&value_) != nullptr;
  }
  void MoveTo(VARIANT* target) noexcept {
    if (FAILED(VariantClear(target))) return;
    *target = value_;
    VariantInit(&value_);
  }

 private:
  VARIANT value_;
};

// Carries one argument from the caller's VARIANT to the method and, for an out parameter, back.
class Argument {
 public:
  HRESULT Prepare(const Parameter& parameter, VARIANT* given, LCID locale) {
    // A script passes a reference to its variable. Some callers pass a reference to a reference,
    // although automation forbids it.
    for (int level = 0; level < 2 && V_VT(given) == (VT_BYREF | VT_VARIANT); ++level) {
      given = V_VARIANTREF(given);
      if (given == nullptr) return DISP_E_TYPEMISMATCH;
      variable_ = given;
    }
    if (parameter.role == Role::kOut) return PrepareOut(parameter, given, locale);
    if ((V_VT(given) & VT_BYREF) != 0 && V_BYREF(given) == nullptr) return DISP_E_TYPEMISMATCH;
    if (V_VT(given) == VT_ERROR && V_ERROR(given) == DISP_E_PARAMNOTFOUND) {
      return DISP_E_PARAMNOTOPTIONAL;
    }
    switch (parameter.type) {
      case VT_ARRAY:
        return PrepareArray(parameter, given);
      case VT_UNKNOWN:
      case VT_DISPATCH:
        return PrepareInterface(parameter, given);
      default:
        return PrepareValue(parameter, given, locale);
    }
  }

  void PrepareResult(const Parameter& parameter, VARIANT* result) noexcept {
    variable_ = result;
    PassSlot(parameter.type);
  }

  VARIANT* passed() noexcept { return &passed_; }

  // Adds a reference to the returned object, because IEditedAudio's segment iteration returns
  // pointers without one. The slot or the caller releases this reference.
  void TakeReference() noexcept {
    if (writes_slot_ && slot_.HoldsInterface()) V_UNKNOWN(&slot_.value())->AddRef();
  }
  void HandOver() noexcept {
    if (!writes_slot_) return;
    if (reference_ != nullptr) {
      if (slot_.HoldsInterface()) *reference_ = V_UNKNOWN(&slot_.value());
      VariantInit(&slot_.value());
    } else if (variable_ != nullptr) {
      slot_.MoveTo(variable_);
    }
  }

 private:
  void PassSlot(VARTYPE type) noexcept {
    slot_.PrepareFor(type);
    writes_slot_ = true;
    V_VT(&passed_) = static_cast<VARTYPE>(VT_BYREF | type);
    V_BYREF(&passed_) = &V_I8(&slot_.value());
  }

  HRESULT PrepareOut(const Parameter& parameter, VARIANT* given, LCID locale) noexcept {
    const bool is_interface = parameter.type == VT_DISPATCH || parameter.type == VT_UNKNOWN;
    const VARTYPE type = V_VT(given);
    if (is_interface && (type == (VT_BYREF | VT_DISPATCH) || type == (VT_BYREF | VT_UNKNOWN))) {
      // Makes the method write to an empty slot instead of the caller's pointer. If the method
      // writes nothing, TakeReference must not add a reference to the object at that pointer.
      reference_ = V_UNKNOWNREF(given);
      PassSlot(parameter.type);
      if (reference_ == nullptr) V_BYREF(&passed_) = nullptr;
      return S_OK;
    }
    if (type == (VT_BYREF | parameter.type)) {
      passed_ = *given;
      return S_OK;
    }
    if ((type & VT_BYREF) != 0) return DISP_E_TYPEMISMATCH;
    PassSlot(parameter.type);
    if (variable_ != nullptr || type == VT_EMPTY) return S_OK;
    // If a script cannot pass a reference, it passes a value. The method's output is lost. The call
    // still fails if the value cannot be converted to the parameter's type.
    Slot coerced;
    return VariantChangeTypeEx(&coerced.value(), given, locale, 0, parameter.type);
  }

  HRESULT PrepareArray(const Parameter& parameter, VARIANT* given) noexcept {
    if ((V_VT(given) & VT_ARRAY) == 0) return DISP_E_TYPEMISMATCH;
    const VARTYPE element = V_VT(given) & VT_TYPEMASK;
    if (element != parameter.element && element != VT_R4) return DISP_E_TYPEMISMATCH;
    V_VT(&passed_) = static_cast<VARTYPE>(VT_ARRAY | element);
    V_ARRAY(&passed_) = (V_VT(given) & VT_BYREF) != 0 ? *V_ARRAYREF(given) : V_ARRAY(given);
    return S_OK;
  }

  HRESULT PrepareInterface(const Parameter& parameter, VARIANT* given) {
    const VARTYPE type = V_VT(given) & ~VT_BYREF;
    if (type != VT_DISPATCH && type != VT_UNKNOWN) return DISP_E_TYPEMISMATCH;
    IUnknown* const object =
        (V_VT(given) & VT_BYREF) != 0 ? *V_UNKNOWNREF(given) : V_UNKNOWN(given);
    slot_.PrepareFor(VT_UNKNOWN);
    if (object != nullptr &&
        FAILED(object->QueryInterface(parameter.iid,
                                      reinterpret_cast<void**>(&V_UNKNOWN(&slot_.value()))))) {
      V_UNKNOWN(&slot_.value()) = nullptr;
      return DISP_E_TYPEMISMATCH;
    }
    passed_ = slot_.value();
    return S_OK;
  }

  HRESULT PrepareValue(const Parameter& parameter, VARIANT* given, LCID locale) {
    const HRESULT hr = VariantChangeTypeEx(&slot_.value(), given, locale, 0, parameter.type);
    passed_ = slot_.value();
    return hr;
  }

  VARIANT passed_ = {};
  Slot slot_;
  bool writes_slot_ = false;
  // The destination of an out value: the caller's variable or result, or the caller's interface
  // pointer.
  VARIANT* variable_ = nullptr;
  IUnknown** reference_ = nullptr;
};

// Returns the automation error for an argument that cannot be coerced.
HRESULT CoercionResult(HRESULT hr) noexcept {
  switch (hr) {
    case DISP_E_OVERFLOW:
    case DISP_E_PARAMNOTOPTIONAL:
    case E_OUTOFMEMORY:
      return hr;
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

bool IsCoherent(const DISPPARAMS& params) noexcept {
  return (params.cArgs == 0 || params.rgvarg != nullptr) &&
         (params.cNamedArgs == 0 || params.rgdispidNamedArgs != nullptr) &&
         params.cNamedArgs <= params.cArgs;
}

// True for IEditedAudio, whose segment iteration returns pointers without a reference.
bool LendsPointers(REFIID iid) noexcept { return IsEqualIID(iid, IID_IEditedAudio); }

void FillException(HRESULT failure, EXCEPINFO* exception) noexcept {
  *exception = {};
  exception->scode = failure;
  exception->bstrSource = SysAllocString(L"Tessaly");
  wchar_t text[512];
  const auto code = static_cast<DWORD>(
      HRESULT_FACILITY(failure) == FACILITY_WIN32 ? HRESULT_CODE(failure) : failure);
  const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                      nullptr, code, 0, text, std::size(text), nullptr);
  std::wstring_view description(text, length);
  description = description.substr(0, description.find_last_not_of(L" \r\n") + 1);
  if (!description.empty()) {
    exception->bstrDescription =
        SysAllocStringLen(description.data(), static_cast<UINT>(description.size()));
  }
}

// One call: finds and coerces the arguments, calls the method and returns the results.
class Call {
 public:
  Call(const Method& method, DISPPARAMS& params)
      : method_(method), params_(params), arguments_(method.parameters.size()) {}

  HRESULT Prepare(LCID locale, VARIANT* result, UINT* argument_error) {
    const auto& parameters = method_.parameters;
    const auto accepted = static_cast<UINT>(std::ranges::count_if(
        parameters, [](const Parameter& parameter) { return parameter.role != Role::kResult; }));
    if (params_.cArgs != accepted) return DISP_E_BADPARAMCOUNT;
    std::vector<VARIANT*> given(parameters.size(), nullptr);
    for (UINT i = 0; i < params_.cArgs; ++i) {
      // The array holds the named arguments first, then the positional arguments in reverse order.
      const bool named = i < params_.cNamedArgs;
      const auto place = named ? static_cast<ULONG>(params_.rgdispidNamedArgs[i])
                               : static_cast<ULONG>(params_.cArgs - 1 - i);
      if (place >= parameters.size() || parameters[place].role == Role::kResult) {
        if (argument_error != nullptr) *argument_error = i;
        return DISP_E_PARAMNOTFOUND;
      }
      given[place] = &params_.rgvarg[i];
    }
    for (std::size_t k = 0; k < parameters.size(); ++k) {
      if (parameters[k].role == Role::kResult) {
        arguments_[k].PrepareResult(parameters[k], result);
        continue;
      }
      // The argument count is right. If parameter k has no argument, another parameter has two.
      if (given[k] == nullptr) return DISP_E_PARAMNOTOPTIONAL;
      const HRESULT hr = arguments_[k].Prepare(parameters[k], given[k], locale);
      if (FAILED(hr)) {
        if (argument_error != nullptr) {
          *argument_error = static_cast<UINT>(given[k] - params_.rgvarg);
        }
        return CoercionResult(hr);
      }
    }
    return S_OK;
  }

  // Calls the method and returns its HRESULT, or the error of DispCallFunc.
  HRESULT Make(void* instance, bool lends_pointers) {
    std::vector<VARTYPE> types;
    std::vector<VARIANT*> passed;
    for (Argument& argument : arguments_) {
      types.push_back(V_VT(argument.passed()));
      passed.push_back(argument.passed());
    }
    VARIANT returned;
    VariantInit(&returned);
    const HRESULT called =
        DispCallFunc(instance, method_.vtable_offset, CC_STDCALL, VT_I4,
                     static_cast<UINT>(types.size()), types.data(), passed.data(), &returned);
    if (FAILED(called)) return called;
    if (lends_pointers) {
      for (Argument& argument : arguments_) argument.TakeReference();
    }
    if (SUCCEEDED(V_I4(&returned))) {
      for (Argument& argument : arguments_) argument.HandOver();
    }
    return V_I4(&returned);
  }

 private:
  const Method& method_;
  DISPPARAMS& params_;
  std::vector<Argument> arguments_;
};

}  // namespace

HRESULT DispatchGetTypeInfo(REFIID iid, UINT index, ITypeInfo** info) noexcept {
  if (info == nullptr) return E_POINTER;
  *info = nullptr;
  if (index != 0) return DISP_E_BADINDEX;
  return FindTypeInfo(iid, info);
}

HRESULT DispatchGetIDsOfNames(REFIID iid, REFIID reserved, LPOLESTR* names, UINT count,
                              DISPID* ids) noexcept {
  if (!IsEqualIID(reserved, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  if (names == nullptr || ids == nullptr) return E_POINTER;
  if (count == 0) return E_INVALIDARG;
  std::fill_n(ids, count, DISPID_UNKNOWN);
  if (std::any_of(names, names + count, [](LPCOLESTR name) { return name == nullptr; })) {
    return E_POINTER;
  }
  ComPtr<ITypeInfo> info;
  const HRESULT hr = FindTypeInfo(iid, info.GetAddressOf());
  return FAILED(hr) ? hr : info->GetIDsOfNames(names, count, ids);
}

HRESULT DispatchInvoke(REFIID iid, void* instance, DISPID member, REFIID reserved, LCID locale,
                       WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                       UINT* argument_error) noexcept {
  if (!IsEqualIID(reserved, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  if (result != nullptr) VariantInit(result);
  if (params == nullptr || !IsCoherent(*params)) return E_INVALIDARG;
  return ComCall([&]() -> HRESULT {
    const MethodTable& methods = MethodsOf(iid);
    const auto method = std::ranges::find(methods, member, &Method::id);
    if (method == methods.end() || (flags & DISPATCH_METHOD) == 0) return DISP_E_MEMBERNOTFOUND;
    Call call(*method, *params);
    const HRESULT prepared = call.Prepare(locale, result, argument_error);
    if (FAILED(prepared)) return prepared;
    const HRESULT hr = call.Make(instance, LendsPointers(iid));
    if (SUCCEEDED(hr)) return hr;
    if (exception != nullptr) FillException(hr, exception);
    return DISP_E_EXCEPTION;
  });
}

}  // namespace marlinda
