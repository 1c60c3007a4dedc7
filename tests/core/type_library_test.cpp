// Compares the type library inside the module with docs/interfaces.md, text by text.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

std::string Narrow(const std::wstring& text) { return {text.begin(), text.end()}; }

std::string GuidText(REFGUID guid) {
  wchar_t text[39];
  StringFromGUID2(guid, text, 39);
  return "`" + Narrow(text) + "`";
}

// Type information with short ways to what the page shows.
struct Type {
  explicit Type(ComPtr<ITypeInfo> from) : info(std::move(from)) {
    TYPEATTR* borrowed = nullptr;
    Check(info->GetTypeAttr(&borrowed));
    attributes = *borrowed;
    info->ReleaseTypeAttr(borrowed);
    Bstr text;
    Check(info->GetDocumentation(MEMBERID_NIL, text.Receive(), nullptr, nullptr, nullptr));
    name = Narrow(text.str());
  }
  Type Referred(HREFTYPE reference) const {
    ComPtr<ITypeInfo> referred;
    Check(info->GetRefTypeInfo(reference, referred.GetAddressOf()));
    return Type(referred);
  }
  Type Implemented(int index) const {
    HREFTYPE reference = 0;
    Check(info->GetRefTypeOfImplType(static_cast<UINT>(index), &reference));
    return Referred(reference);
  }
  std::string Help(MEMBERID member = MEMBERID_NIL) const {
    Bstr help;
    Check(info->GetDocumentation(member, nullptr, help.Receive(), nullptr, nullptr));
    return Narrow(help.str());
  }
  std::string TextOf(const TYPEDESC& type) const {
    static const std::map<VARTYPE, std::string> kNames = {
        {VT_I2, "short"}, {VT_I4, "long"},           {VT_UI4, "ULONG"}, {VT_I8, "int64"},
        {VT_R4, "float"}, {VT_BOOL, "VARIANT_BOOL"}, {VT_BSTR, "BSTR"}, {VT_UNKNOWN, "IUnknown*"}};
    if (type.vt == VT_PTR) return TextOf(*type.lptdesc) + "*";
    if (type.vt == VT_SAFEARRAY) return "SAFEARRAY(" + TextOf(*type.lptdesc) + ")";
    if (type.vt == VT_USERDEFINED) return Referred(type.hreftype).name;
    return kNames.at(type.vt);
  }

  ComPtr<ITypeInfo> info;
  TYPEATTR attributes;
  std::string name;
};

std::string FlagText(USHORT flags) {
  static const std::map<USHORT, std::string> kTexts = {
      {PARAMFLAG_FIN, "[in] "},
      {PARAMFLAG_FOUT, "[out] "},
      {PARAMFLAG_FIN | PARAMFLAG_FOUT, "[in,out] "},
      {PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, "[out,retval] "}};
  return kTexts.at(flags);
}

// A method as the page has it.
std::string MethodText(const Type& type, const FUNCDESC& function, MEMBERID number) {
  BSTR names[16] = {};
  UINT count = 0;
  Check(type.info->GetNames(function.memid, names, 16, &count));
  std::string text = std::to_string(number) + ". `" + Narrow(names[0]) + "(";
  for (SHORT i = 0; i < function.cParams; ++i) {
    const ELEMDESC& parameter = function.lprgelemdescParam[i];
    text += (i > 0 ? ", " : "") + FlagText(parameter.paramdesc.wParamFlags) +
            type.TextOf(parameter.tdesc) + " " + Narrow(names[i + 1]);
  }
  for (BSTR name : names) SysFreeString(name);
  return text + ")`\n\n   " + type.Help(function.memid) + "\n";
}

// A class or interface with its methods, as the page has it.
std::string TextOf(const Type& type) {
  const bool is_dual = (type.attributes.wTypeFlags & TYPEFLAG_FDUAL) != 0;
  const bool is_dispatch = type.attributes.typekind == TKIND_DISPATCH;
  if (type.attributes.typekind == TKIND_COCLASS) {
    EXPECT_NE(type.attributes.wTypeFlags & TYPEFLAG_FCANCREATE, 0);
    std::string lists[2];
    for (int i = 0; i < type.attributes.cImplTypes; ++i) {
      INT flags = 0;
      Check(type.info->GetImplTypeFlags(static_cast<UINT>(i), &flags));
      std::string& list = lists[(flags & IMPLTYPEFLAG_FSOURCE) != 0];
      EXPECT_EQ((flags & IMPLTYPEFLAG_FDEFAULT) != 0, list.empty());
      const std::string name = type.Implemented(i).name;
      std::string anchor = name;
      for (char& c : anchor) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      list += (list.empty() ? "[`" : ", [`") + name + "`](#" + anchor + ")";
    }
    return "- **`" + type.name + "`** " + GuidText(type.attributes.guid) + ": " + type.Help() +
           " Interfaces: " + lists[0] + (lists[1].empty() ? "" : "; events: " + lists[1]) + ".\n";
  }
  std::string text = "## " + type.name + "\n\n" + GuidText(type.attributes.guid) + ", " +
                     (is_dual       ? "dual"
                      : is_dispatch ? "event interface (dispinterface), each event with its DISPID"
                                    : "custom, derived from `IUnknown`") +
                     ". " + type.Help() + "\n\n";
  const Type face = is_dual ? type.Implemented(-1) : type;
  // What the page does not show: an interface compiler was seen to write a wrong base.
  EXPECT_EQ(face.Implemented(0).attributes.guid,
            is_dual || is_dispatch ? IID_IDispatch : IID_IUnknown)
      << type.name;
  EXPECT_EQ((face.attributes.wTypeFlags & TYPEFLAG_FOLEAUTOMATION) != 0, is_dual) << type.name;
  for (UINT i = 0; i < face.attributes.cFuncs; ++i) {
    FUNCDESC* function = nullptr;
    Check(face.info->GetFuncDesc(i, &function));
    EXPECT_EQ(function->elemdescFunc.tdesc.vt, VT_HRESULT);
    text +=
        MethodText(face, *function, is_dispatch ? function->memid : static_cast<MEMBERID>(i + 1));
    face.info->ReleaseFuncDesc(function);
  }
  return text;
}

TEST(TypeLibrary, IsWhatTheInterfaceReferenceDescribes) {
  std::ifstream file(TESSALY_SOURCES "/docs/interfaces.md");
  std::string page((std::istreambuf_iterator<char>(file)), {});
  // Markdown shows two backslashes as one.
  for (std::size_t at = 0; (at = page.find("\\\\", at)) != std::string::npos; ++at)
    page.erase(at, 1);
  ComPtr<ITypeLib> library;
  Check(LoadTypeLibEx(ModuleUnderTest::Path().c_str(), REGKIND_NONE, library.GetAddressOf()));
  TLIBATTR* attributes = nullptr;
  ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
  EXPECT_EQ(attributes->guid, LIBID_MarlindaLib);
  EXPECT_EQ(attributes->wMajorVerNum, 1);
  EXPECT_EQ(attributes->wMinorVerNum, 0);
  EXPECT_EQ(attributes->syskind, sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32);
  library->ReleaseTLibAttr(attributes);
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    Check(library->GetTypeInfo(i, info.GetAddressOf()));
    const std::string text = TextOf(Type(info));
    const std::size_t at = page.find(text);
    ASSERT_NE(at, std::string::npos) << text;
    page.erase(at, text.size());
  }
  EXPECT_EQ(page.find("`{"), std::string::npos) << "more classes or interfaces";
  EXPECT_EQ(page.find("`\n\n"), std::string::npos) << "more methods";
}

}  // namespace
}  // namespace marlinda::testing
