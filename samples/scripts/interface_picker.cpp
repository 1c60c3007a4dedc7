// Lets scripts use every interface of an object. By itself, a script gets only the default one. The
// default method of InterfacePicker returns the interface of a given name:
//   Set pick = CreateObject("Tessaly.InterfacePicker")
//   pick(filter, "ICoreTask").Start
// "regsvr32 InterfacePicker.dll" registers the class for the machine, or for the current user if
// the environment variable TESSALY_REGISTRATION is "user".
#include <windows.h>
// The headers below need windows.h first.
#include <oleauto.h>
#include <olectl.h>
#include <wrl/client.h>

#include <cwchar>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

constexpr CLSID kPicker = {
    0x5B0E39C1, 0x6F0A, 0x4C53, {0x9D, 0x7A, 0x21, 0x5E, 0x0B, 0x84, 0xC3, 0x6E}};
constexpr wchar_t kClassText[] = L"{5B0E39C1-6F0A-4C53-9D7A-215E0B84C36E}";
constexpr wchar_t kClassKey[] = L"Software\\Classes\\CLSID\\{5B0E39C1-6F0A-4C53-9D7A-215E0B84C36E}";
constexpr wchar_t kNameKey[] = L"Software\\Classes\\Tessaly.InterfacePicker";
constexpr GUID kMarlinda = {
    0xF70A5B7A, 0x7291, 0x4204, {0x93, 0xE6, 0xE7, 0x5F, 0xDA, 0xEF, 0x39, 0xFC}};

HINSTANCE g_module = nullptr;

// Finds the dual interface `name` in the registered type library.
HRESULT FindInterface(const wchar_t* name, IID& iid) {
  ComPtr<ITypeLib> library;
  HRESULT hr = LoadRegTypeLib(kMarlinda, 1, 0, 0, library.GetAddressOf());
  if (FAILED(hr)) return hr;
  for (UINT index = 0; index < library->GetTypeInfoCount(); ++index) {
    BSTR found = nullptr;
    hr = library->GetDocumentation(static_cast<INT>(index), &found, nullptr, nullptr, nullptr);
    const bool same = SUCCEEDED(hr) && found != nullptr && std::wcscmp(name, found) == 0;
    SysFreeString(found);
    ComPtr<ITypeInfo> info;
    TYPEATTR* attributes = nullptr;
    if (!same || FAILED(library->GetTypeInfo(index, info.GetAddressOf())) ||
        FAILED(info->GetTypeAttr(&attributes))) {
      continue;
    }
    iid = attributes->guid;
    const bool is_dual = attributes->typekind == TKIND_DISPATCH;
    info->ReleaseTypeAttr(attributes);
    if (is_dual) return S_OK;
  }
  return DISP_E_UNKNOWNNAME;
}

// Queries `object` for the interface `name`.
HRESULT Pick(const VARIANT& object, const VARIANT& name, VARIANT* result) {
  if (V_VT(&object) != VT_DISPATCH || V_DISPATCH(&object) == nullptr || V_VT(&name) != VT_BSTR ||
      V_BSTR(&name) == nullptr) {
    return DISP_E_TYPEMISMATCH;
  }
  IID iid = {};
  HRESULT hr = FindInterface(V_BSTR(&name), iid);
  if (FAILED(hr)) return hr;
  ComPtr<IDispatch> picked;
  hr = V_DISPATCH(&object)->QueryInterface(iid, reinterpret_cast<void**>(picked.GetAddressOf()));
  if (FAILED(hr)) return hr;
  V_VT(result) = VT_DISPATCH;
  V_DISPATCH(result) = picked.Detach();
  return S_OK;
}

// One static object serves the whole process, so it needs no reference count.
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
    if (member != DISPID_VALUE) return DISP_E_MEMBERNOTFOUND;
    if (params->cArgs != 2 || result == nullptr) return DISP_E_BADPARAMCOUNT;
    VARIANT object;
    VARIANT name;
    VariantInit(&object);
    VariantInit(&name);
    // Arguments are in reverse order.
    HRESULT hr = VariantCopyInd(&object, &params->rgvarg[1]);
    if (SUCCEEDED(hr)) hr = VariantCopyInd(&name, &params->rgvarg[0]);
    if (SUCCEEDED(hr)) hr = Pick(object, name, result);
    VariantClear(&object);
    VariantClear(&name);
    return hr;
  }
};

HKEY Root() {
  wchar_t scope[8] = {};
  GetEnvironmentVariableW(L"TESSALY_REGISTRATION", scope, ARRAYSIZE(scope));
  return std::wcscmp(scope, L"user") == 0 ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
}

bool SetText(const std::wstring& key, const wchar_t* name, const wchar_t* text) {
  return RegSetKeyValueW(Root(), key.c_str(), name, REG_SZ, text,
                         static_cast<DWORD>((std::wcslen(text) + 1) * sizeof(wchar_t))) ==
         ERROR_SUCCESS;
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) g_module = module;
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** factory) {
  static InterfacePicker picker;
  if (!IsEqualCLSID(clsid, kPicker)) return CLASS_E_CLASSNOTAVAILABLE;
  return static_cast<IClassFactory&>(picker).QueryInterface(iid, factory);
}

STDAPI DllCanUnloadNow() { return S_FALSE; }

STDAPI DllRegisterServer() {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(g_module, path, MAX_PATH);
  if (length == 0 || length == MAX_PATH) return E_FAIL;
  const std::wstring server = std::wstring(kClassKey) + L"\\InprocServer32";
  const bool done = SetText(server, nullptr, path) && SetText(server, L"ThreadingModel", L"Both") &&
                    SetText(std::wstring(kNameKey) + L"\\CLSID", nullptr, kClassText);
  return done ? S_OK : SELFREG_E_CLASS;
}

STDAPI DllUnregisterServer() {
  RegDeleteTreeW(Root(), kNameKey);
  const LSTATUS status = RegDeleteTreeW(Root(), kClassKey);
  return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND ? S_OK : SELFREG_E_CLASS;
}
