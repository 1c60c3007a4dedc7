// The scripting part of a test host: an object whose one method gives a script another interface of
// an object. A script is handed an object's default interface; the others it can reach only through
// its host.
//   Set pick = CreateObject("TessalyTests.InterfacePicker")
//   pick(filter, "ICoreTask").Start
#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <string>

#include "core/com_ptr.h"
#include "core/handle.h"

namespace marlinda::testing {
namespace {

constexpr CLSID kPicker = {
    0x5B0E39C1, 0x6F0A, 0x4C53, {0x9D, 0x7A, 0x21, 0x5E, 0x0B, 0x84, 0xC3, 0x6E}};
constexpr GUID kMarlinda = {
    0xF70A5B7A, 0x7291, 0x4204, {0x93, 0xE6, 0xE7, 0x5F, 0xDA, 0xEF, 0x39, 0xFC}};

// The dual interface of that name in the registered type library.
HRESULT FindInterface(const std::wstring& name, IID& iid) {
  ComPtr<ITypeLib> library;
  const HRESULT hr = LoadRegTypeLib(kMarlinda, 1, 0, 0, library.GetAddressOf());
  if (FAILED(hr)) return hr;
  for (UINT index = 0; index < library->GetTypeInfoCount(); ++index) {
    BSTR found = nullptr;
    Check(library->GetDocumentation(static_cast<INT>(index), &found, nullptr, nullptr, nullptr));
    const bool same = found != nullptr && name == found;
    SysFreeString(found);
    ComPtr<ITypeInfo> info;
    Check(library->GetTypeInfo(index, info.GetAddressOf()));
    TYPEATTR* attributes = nullptr;
    Check(info->GetTypeAttr(&attributes));
    iid = attributes->guid;
    const bool is_dual = attributes->typekind == TKIND_DISPATCH;
    info->ReleaseTypeAttr(attributes);
    if (same && is_dual) return S_OK;
  }
  return DISP_E_UNKNOWNNAME;
}

// One object for the life of the process: what it does needs no state.
class InterfacePicker final : public IDispatch, public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (IsEqualIID(iid, IID_IClassFactory)) {
      *object = static_cast<IClassFactory*>(this);
    } else if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch)) {
      *object = static_cast<IDispatch*>(this);
    } else {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }

  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  STDMETHODIMP Invoke(DISPID member, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                      EXCEPINFO*, UINT*) override {
    return ComCall([&] {
      if (member != DISPID_VALUE) return DISP_E_MEMBERNOTFOUND;
      if (params->cArgs != 2 || result == nullptr) return DISP_E_BADPARAMCOUNT;
      VARIANT object;
      VARIANT name;
      VariantInit(&object);
      VariantInit(&name);
      // The last argument comes first.
      Check(VariantCopyInd(&object, &params->rgvarg[1]));
      Check(VariantCopyInd(&name, &params->rgvarg[0]));
      HRESULT hr = DISP_E_TYPEMISMATCH;
      if (V_VT(&object) == VT_DISPATCH && V_DISPATCH(&object) != nullptr &&
          V_VT(&name) == VT_BSTR) {
        IID iid = {};
        hr = FindInterface(V_BSTR(&name), iid);
        if (SUCCEEDED(hr)) {
          V_VT(result) = VT_DISPATCH;
          hr = V_DISPATCH(&object)->QueryInterface(iid,
                                                   reinterpret_cast<void**>(&V_DISPATCH(result)));
          if (FAILED(hr)) V_VT(result) = VT_EMPTY;
        }
      }
      VariantClear(&object);
      VariantClear(&name);
      return hr;
    });
  }
};

}  // namespace
}  // namespace marlinda::testing

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** factory) {
  static marlinda::testing::InterfacePicker picker;
  if (!IsEqualCLSID(clsid, marlinda::testing::kPicker)) return CLASS_E_CLASSNOTAVAILABLE;
  return static_cast<IClassFactory&>(picker).QueryInterface(iid, factory);
}

STDAPI DllCanUnloadNow() { return S_FALSE; }
