#include "tests/support/contract_model.h"

#include <stdexcept>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

std::string Narrow(const Bstr& text) {
  const std::wstring wide = text.str();
  return {wide.begin(), wide.end()};
}

std::string NameOf(ITypeInfo* info) {
  Bstr name;
  Check(info->GetDocumentation(MEMBERID_NIL, name.Receive(), nullptr, nullptr, nullptr));
  return Narrow(name);
}

TYPEATTR AttributesOf(ITypeInfo* info) {
  TYPEATTR* attributes = nullptr;
  Check(info->GetTypeAttr(&attributes));
  const TYPEATTR copy = *attributes;
  info->ReleaseTypeAttr(attributes);
  return copy;
}

ComPtr<ITypeInfo> Implemented(ITypeInfo* info, UINT index) {
  HREFTYPE reference = 0;
  Check(info->GetRefTypeOfImplType(index, &reference));
  ComPtr<ITypeInfo> implemented;
  Check(info->GetRefTypeInfo(reference, implemented.GetAddressOf()));
  return implemented;
}

// The interface with its vtable, also where the library shows the dispatch face of a dual one.
ComPtr<ITypeInfo> VtableFace(ComPtr<ITypeInfo> info) {
  const TYPEATTR attributes = AttributesOf(info.Get());
  if (attributes.typekind != TKIND_DISPATCH) return info;
  return Implemented(info.Get(), static_cast<UINT>(-1));
}

Parameter Read(ITypeInfo* info, const ELEMDESC& element, std::string name) {
  const TYPEDESC& type = element.tdesc;
  const bool out = (element.paramdesc.wParamFlags & PARAMFLAG_FOUT) != 0;
  Parameter result = {std::move(name), Kind::kInteger, type.vt, IID_IUnknown};
  switch (type.vt) {
    case VT_I2:
    case VT_I4:
    case VT_UI4:
    case VT_I8:
    case VT_BOOL:
      return result;
    case VT_R4:
      result.kind = Kind::kReal;
      return result;
    case VT_BSTR:
      result.kind = Kind::kText;
      return result;
    case VT_UNKNOWN:
      result.kind = Kind::kObject;
      return result;
    case VT_SAFEARRAY:
      result.kind = Kind::kArray;
      return result;
    case VT_PTR:
      break;
    default:
      throw std::runtime_error("a parameter type that this test does not know: " + result.name);
  }
  const TYPEDESC& target = *type.lptdesc;
  if (target.vt == VT_SAFEARRAY) {
    result.kind = Kind::kArray;
  } else if (target.vt == VT_USERDEFINED) {
    ComPtr<ITypeInfo> referred;
    Check(info->GetRefTypeInfo(target.hreftype, referred.GetAddressOf()));
    result.kind = Kind::kObject;
    result.iid = AttributesOf(referred.Get()).guid;
  } else if (out) {
    result.kind = Kind::kOut;
    result.type = target.vt == VT_PTR ? static_cast<VARTYPE>(VT_UNKNOWN) : target.vt;
  } else {
    throw std::runtime_error("a pointer that this test does not know: " + result.name);
  }
  return result;
}

void AppendMethods(ITypeInfo* info, std::vector<Method>& methods) {
  const TYPEATTR attributes = AttributesOf(info);
  for (UINT i = 0; i < attributes.cFuncs; ++i) {
    FUNCDESC* function = nullptr;
    Check(info->GetFuncDesc(i, &function));
    std::vector<BSTR> names(static_cast<std::size_t>(function->cParams) + 1, nullptr);
    UINT count = 0;
    Check(info->GetNames(function->memid, names.data(), static_cast<UINT>(names.size()), &count));
    std::vector<std::string> texts;
    for (BSTR name : names) {
      const std::wstring wide = name == nullptr ? L"" : name;
      texts.emplace_back(wide.begin(), wide.end());
      SysFreeString(name);
    }
    Method method = {
        NameOf(info), texts[0], attributes.guid, static_cast<ULONG_PTR>(function->oVft), {}};
    for (SHORT p = 0; p < function->cParams; ++p) {
      method.parameters.push_back(
          Read(info, function->lprgelemdescParam[p], texts[static_cast<std::size_t>(p) + 1]));
    }
    info->ReleaseFuncDesc(function);
    methods.push_back(std::move(method));
  }
}

}  // namespace

std::vector<Class> ClassesOfTheModule() {
  ComPtr<ITypeLib> library;
  Check(LoadTypeLibEx(ModuleUnderTest::Path().c_str(), REGKIND_NONE, library.GetAddressOf()));
  std::vector<Class> classes;
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    Check(library->GetTypeInfo(i, info.GetAddressOf()));
    const TYPEATTR attributes = AttributesOf(info.Get());
    if (attributes.typekind != TKIND_COCLASS) continue;
    Class found = {NameOf(info.Get()), attributes.guid, {}, {}, {}};
    for (UINT k = 0; k < attributes.cImplTypes; ++k) {
      INT flags = 0;
      Check(info->GetImplTypeFlags(k, &flags));
      const ComPtr<ITypeInfo> face = Implemented(info.Get(), k);
      const bool is_source = (flags & IMPLTYPEFLAG_FSOURCE) != 0;
      (is_source ? found.events : found.interfaces)
          .push_back({NameOf(face.Get()), AttributesOf(face.Get()).guid});
      if (!is_source) AppendMethods(VtableFace(face).Get(), found.methods);
    }
    classes.push_back(std::move(found));
  }
  return classes;
}

}  // namespace marlinda::testing
