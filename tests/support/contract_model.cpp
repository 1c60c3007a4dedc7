#include "tests/support/contract_model.h"

#include <map>
#include <stdexcept>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

std::string Narrow(BSTR text) { return {text, text + SysStringLen(text)}; }

std::string NameOf(ITypeInfo* info) {
  Bstr name;
  Check(info->GetDocumentation(MEMBERID_NIL, name.Receive(), nullptr, nullptr, nullptr));
  return Narrow(name);
}

ComPtr<ITypeInfo> Referred(ITypeInfo* info, HREFTYPE reference) {
  ComPtr<ITypeInfo> referred;
  Check(info->GetRefTypeInfo(reference, referred.GetAddressOf()));
  return referred;
}

Parameter Read(ITypeInfo* info, const ELEMDESC& element, const std::string& name) {
  static const std::map<VARTYPE, Kind> kKinds = {
      {VT_I2, Kind::kInteger}, {VT_I4, Kind::kInteger},     {VT_UI4, Kind::kInteger},
      {VT_I8, Kind::kInteger}, {VT_BOOL, Kind::kInteger},   {VT_R4, Kind::kReal},
      {VT_BSTR, Kind::kText},  {VT_UNKNOWN, Kind::kObject}, {VT_SAFEARRAY, Kind::kArray}};
  const VARTYPE type = element.tdesc.vt;
  if (kKinds.contains(type)) return {name, kKinds.at(type), type, IID_IUnknown};
  if (type != VT_PTR) throw std::runtime_error("a type that this test does not know: " + name);
  const TYPEDESC& target = *element.tdesc.lptdesc;
  if (target.vt == VT_SAFEARRAY) return {name, Kind::kArray, type, IID_IUnknown};
  if (target.vt == VT_USERDEFINED) {
    const IID iid = AttributesOf(Referred(info, target.hreftype).Get()).guid;
    return {name, Kind::kObject, type, iid};
  }
  if ((element.paramdesc.wParamFlags & PARAMFLAG_FOUT) == 0) {
    throw std::runtime_error("a pointer that this test does not know: " + name);
  }
  const VARTYPE pointed = target.vt == VT_PTR ? static_cast<VARTYPE>(VT_UNKNOWN) : target.vt;
  return {name, Kind::kOut, pointed, IID_IUnknown};
}

void AppendMethods(ITypeInfo* info, std::vector<Method>& methods) {
  const TYPEATTR attributes = AttributesOf(info);
  for (UINT i = 0; i < attributes.cFuncs; ++i) {
    FUNCDESC* function = nullptr;
    Check(info->GetFuncDesc(i, &function));
    std::vector<BSTR> names(static_cast<std::size_t>(function->cParams) + 1, nullptr);
    UINT count = 0;
    Check(info->GetNames(function->memid, names.data(), static_cast<UINT>(names.size()), &count));
    const auto offset = static_cast<ULONG_PTR>(function->oVft);
    Method& method =
        methods.emplace_back(Method{NameOf(info), Narrow(names[0]), attributes.guid, offset, {}});
    for (std::size_t p = 1; p < names.size(); ++p) {
      const ELEMDESC& element = function->lprgelemdescParam[p - 1];
      method.parameters.push_back(Read(info, element, Narrow(names[p])));
    }
    for (BSTR name : names) SysFreeString(name);
    info->ReleaseFuncDesc(function);
  }
}

}  // namespace

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
  return Referred(info, reference);
}

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
      ComPtr<ITypeInfo> face = Implemented(info.Get(), k);
      const TYPEATTR shown = AttributesOf(face.Get());
      const bool is_source = (flags & IMPLTYPEFLAG_FSOURCE) != 0;
      (is_source ? found.events : found.interfaces).push_back(shown.guid);
      if (is_source) continue;
      // For a dual interface, the library lists the dispatch view, which has no vtable.
      if (shown.typekind == TKIND_DISPATCH) face = Implemented(face.Get(), kVtableFace);
      AppendMethods(face.Get(), found.methods);
    }
    classes.push_back(std::move(found));
  }
  return classes;
}

}  // namespace marlinda::testing
