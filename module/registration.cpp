#include "module/registration.h"

#include <marlinda.h>

#include <algorithm>
#include <cwchar>
#include <string>
#include <string_view>

#include "core/class_table.h"
#include "core/com_call.h"
#include "core/com_ptr.h"
#include "core/module.h"
#include "core/registration/registration_run.h"
#include "core/resource.h"

namespace marlinda {
namespace {

std::wstring ToText(REFGUID guid) {
  wchar_t text[39];
  StringFromGUID2(guid, text, ARRAYSIZE(text));
  return text;
}

std::wstring ToHex(ULONG number) {
  wchar_t text[9];
  (void)std::swprintf(text, ARRAYSIZE(text), L"%lx", number);
  return text;
}

// The library's identifier names the application and the module as well.
std::wstring ModuleGuid() { return ToText(LIBID_MarlindaLib); }

RegistryScript ModuleScript() {
  return LoadRegistryScript(IDR_MODULE_REGISTRATION, {{L"APPID", ModuleGuid()}});
}

RegistryScript ClassScript(const ClassEntry& entry) {
  const std::wstring prog_id = entry.prog_id;
  return LoadRegistryScript(
      IDR_CLASS_REGISTRATION,
      {{L"MODULE", TheModule().Path()},
       {L"MODULETYPE", L"InprocServer32"},
       {L"APPID", ModuleGuid()},
       {L"MODULEGUID", ModuleGuid()},
       {L"FriendlyName", std::wstring(entry.name) + L" Object"},
       {L"CLSID", ToText(*entry.clsid)},
       {L"PROGID", prog_id},
       {L"VERSIONINDEPENDENTPROGID", prog_id.substr(0, prog_id.rfind(L'.'))}});
}

// The module's type library and its entries in the registry.
class TypeLibraryRegistration {
 public:
  explicit TypeLibraryRegistration(RegistrationScope scope) : scope_(scope) {
    Check(LoadTypeLibEx(path_.c_str(), REGKIND_NONE, library_.GetAddressOf()));
  }

  void Register(RegistryTransaction& registry) {
    Protect(registry);
    std::wstring folder = path_.substr(0, path_.rfind(L'\\'));
    if (scope_ == RegistrationScope::kMachine) {
      Check(RegisterTypeLib(library_.Get(), path_.data(), folder.data()));
    } else {
      using Function = HRESULT(WINAPI*)(ITypeLib*, OLECHAR*, OLECHAR*);
      const auto register_for_user = PerUser<Function>("RegisterTypeLibForUser");
      Check(register_for_user(library_.Get(), path_.data(), folder.data()));
    }
  }

  void Unregister(RegistryTransaction& registry) {
    TLIBATTR* attributes = nullptr;
    Check(library_->GetLibAttr(&attributes));
    const TLIBATTR library = *attributes;
    library_->ReleaseTLibAttr(attributes);
    // The library's own kind may be the other word size's; entries are made for the module's.
    const bool is_64_bit = sizeof(void*) == 8;
    const SYSKIND kind = is_64_bit ? SYS_WIN64 : SYS_WIN32;
    Protect(registry);
    HRESULT hr = S_OK;
    if (scope_ == RegistrationScope::kMachine) {
      hr = UnRegisterTypeLib(library.guid, library.wMajorVerNum, library.wMinorVerNum, library.lcid,
                             kind);
    } else {
      using Function = HRESULT(WINAPI*)(REFGUID, WORD, WORD, LCID, SYSKIND);
      const auto unregister_for_user = PerUser<Function>("UnRegisterTypeLibForUser");
      hr = unregister_for_user(library.guid, library.wMajorVerNum, library.wMinorVerNum,
                               library.lcid, kind);
    }
    // Where nothing is registered, this fails with one code or another.
    const RegistryPlace entry = ClassesRoot(scope_) / L"TypeLib" / ToText(library.guid) /
                                (ToHex(library.wMajorVerNum) + L"." + ToHex(library.wMinorVerNum)) /
                                ToHex(library.lcid) / (is_64_bit ? L"win64" : L"win32");
    if (KeyExists(entry)) Check(hr);
  }

 private:
  // The automation library has these two since Windows Vista and declares them in few headers.
  template <class Function>
  static Function PerUser(const char* name) {
    const FARPROC address = GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), name);
    if (address == nullptr) throw HResultError(LastErrorResult());
    return reinterpret_cast<Function>(reinterpret_cast<void*>(address));
  }

  // The automation library writes an entry for the library and one for each interface, the latter
  // for the programs of the other word size too.
  void Protect(RegistryTransaction& registry) {
    const RegistryPlace classes = ClassesRoot(scope_);
    registry.Protect(classes / L"TypeLib" / ModuleGuid());
    const UINT count = library_->GetTypeInfoCount();
    for (UINT index = 0; index < count; ++index) {
      ComPtr<ITypeInfo> info;
      Check(library_->GetTypeInfo(index, info.GetAddressOf()));
      TYPEATTR* attributes = nullptr;
      Check(info->GetTypeAttr(&attributes));
      const GUID guid = attributes->guid;
      const TYPEKIND kind = attributes->typekind;
      info->ReleaseTypeAttr(attributes);
      if (kind != TKIND_INTERFACE && kind != TKIND_DISPATCH) continue;
      registry.Protect(classes / L"Interface" / ToText(guid));
      registry.Protect(classes / L"Wow6432Node" / L"Interface" / ToText(guid));
    }
  }

  const RegistrationScope scope_;
  std::wstring path_ = TheModule().Path();
  ComPtr<ITypeLib> library_;
};

}  // namespace

HRESULT RegisterModule() noexcept {
  return ComCall([] {
    const SystemLocale locale;
    const RegistrationScope scope = ChosenScope();
    RegistryTransaction registry;
    RunRegistration(ModuleScript(), scope, registry);
    for (const ClassEntry& entry : ClassTable()) {
      RunRegistration(ClassScript(entry), scope, registry);
    }
    TypeLibraryRegistration(scope).Register(registry);
    registry.Commit();
    return S_OK;
  });
}

HRESULT UnregisterModule() noexcept {
  return ComCall([] {
    const SystemLocale locale;
    const RegistrationScope scope = ChosenScope();
    RegistryTransaction registry;
    TypeLibraryRegistration(scope).Unregister(registry);
    const auto classes = ClassTable();
    std::for_each(classes.rbegin(), classes.rend(), [&](const ClassEntry& entry) {
      RunUnregistration(ClassScript(entry), scope, registry);
    });
    RunUnregistration(ModuleScript(), scope, registry);
    registry.Commit();
    return S_OK;
  });
}

}  // namespace marlinda
