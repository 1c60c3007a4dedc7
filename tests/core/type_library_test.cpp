// Compares the type library inside the module with docs/interfaces.md, line by line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

std::string Narrow(const Bstr& text) {
  const std::wstring wide = text.str();
  return {wide.begin(), wide.end()};
}

ComPtr<ITypeLib> LoadLibraryOfModule() {
  ComPtr<ITypeLib> library;
  Check(LoadTypeLibEx(ModuleUnderTest::Path().c_str(), REGKIND_NONE, library.GetAddressOf()));
  return library;
}

std::string NameOf(ITypeInfo* info) {
  Bstr name;
  Check(info->GetDocumentation(MEMBERID_NIL, name.Receive(), nullptr, nullptr, nullptr));
  return Narrow(name);
}

std::string HelpOf(ITypeInfo* info, MEMBERID member) {
  Bstr help;
  Check(info->GetDocumentation(member, nullptr, help.Receive(), nullptr, nullptr));
  return Narrow(help);
}

TYPEATTR AttributesOf(ITypeInfo* info) {
  TYPEATTR* attributes = nullptr;
  Check(info->GetTypeAttr(&attributes));
  const TYPEATTR copy = *attributes;
  info->ReleaseTypeAttr(attributes);
  return copy;
}

ComPtr<ITypeInfo> Referred(ITypeInfo* info, HREFTYPE reference) {
  ComPtr<ITypeInfo> referred;
  Check(info->GetRefTypeInfo(reference, referred.GetAddressOf()));
  return referred;
}

ComPtr<ITypeInfo> Implemented(ITypeInfo* info, UINT index) {
  HREFTYPE reference = 0;
  Check(info->GetRefTypeOfImplType(index, &reference));
  return Referred(info, reference);
}

// A type as the page writes it.
std::string TypeText(ITypeInfo* info, const TYPEDESC& type) {
  switch (type.vt) {
    case VT_I2:
      return "short";
    case VT_I4:
      return "long";
    case VT_UI4:
      return "ULONG";
    case VT_I8:
      return "int64";
    case VT_R4:
      return "float";
    case VT_BOOL:
      return "VARIANT_BOOL";
    case VT_BSTR:
      return "BSTR";
    case VT_UNKNOWN:
      return "IUnknown*";
    case VT_PTR:
      return TypeText(info, *type.lptdesc) + "*";
    case VT_SAFEARRAY:
      return "SAFEARRAY(" + TypeText(info, *type.lptdesc) + ")";
    case VT_USERDEFINED:
      return NameOf(Referred(info, type.hreftype).Get());
    default:
      return "VARTYPE " + std::to_string(type.vt);
  }
}

std::string FlagText(USHORT flags) {
  static constexpr std::pair<USHORT, const char*> kNames[] = {
      {PARAMFLAG_FIN, "in"},     {PARAMFLAG_FOUT, "out"},      {PARAMFLAG_FRETVAL, "retval"},
      {PARAMFLAG_FLCID, "lcid"}, {PARAMFLAG_FOPT, "optional"}, {PARAMFLAG_FHASDEFAULT, "default"},
  };
  std::string text;
  for (const auto& [flag, name] : kNames) {
    if ((flags & flag) != 0) text += (text.empty() ? "" : ",") + std::string(name);
  }
  return "[" + text + "]";
}

std::string SignatureText(ITypeInfo* info, const FUNCDESC& function) {
  std::vector<BSTR> names(static_cast<std::size_t>(function.cParams) + 1, nullptr);
  UINT count = 0;
  Check(info->GetNames(function.memid, names.data(), static_cast<UINT>(names.size()), &count));
  std::vector<std::string> texts;
  for (BSTR name : names) {
    const std::wstring wide = name == nullptr ? L"?" : name;
    texts.emplace_back(wide.begin(), wide.end());
    SysFreeString(name);
  }
  std::string text = texts[0] + "(";
  for (SHORT i = 0; i < function.cParams; ++i) {
    const ELEMDESC& parameter = function.lprgelemdescParam[i];
    text += (i > 0 ? ", " : "") + FlagText(parameter.paramdesc.wParamFlags) + " " +
            TypeText(info, parameter.tdesc) + " " + texts[static_cast<std::size_t>(i) + 1];
  }
  return text + ")";
}

std::string GuidText(REFGUID guid) {
  wchar_t text[39];
  StringFromGUID2(guid, text, 39);
  return Narrow(Bstr(text));
}

std::string LinkTo(const std::string& name) {
  std::string anchor = name;
  for (char& c : anchor) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return "[`" + name + "`](#" + anchor + ")";
}

// The line of a class in the page.
std::string ClassText(ITypeInfo* info) {
  const TYPEATTR attributes = AttributesOf(info);
  EXPECT_NE(attributes.wTypeFlags & TYPEFLAG_FCANCREATE, 0);
  std::string interfaces;
  std::string events;
  for (UINT i = 0; i < attributes.cImplTypes; ++i) {
    INT flags = 0;
    Check(info->GetImplTypeFlags(i, &flags));
    std::string& list = (flags & IMPLTYPEFLAG_FSOURCE) != 0 ? events : interfaces;
    EXPECT_EQ((flags & IMPLTYPEFLAG_FDEFAULT) != 0, list.empty());
    list += (list.empty() ? "" : ", ") + LinkTo(NameOf(Implemented(info, i).Get()));
  }
  return "- **`" + NameOf(info) + "`** `" + GuidText(attributes.guid) +
         "`: " + HelpOf(info, MEMBERID_NIL) + " Interfaces: " + interfaces +
         (events.empty() ? "" : "; events: " + events) + ".\n";
}

// The section of an interface in the page. Checks what the page does not show.
std::string InterfaceText(ComPtr<ITypeInfo> info) {
  TYPEATTR attributes = AttributesOf(info.Get());
  const bool is_dual = (attributes.wTypeFlags & TYPEFLAG_FDUAL) != 0;
  const bool is_dispatch = attributes.typekind == TKIND_DISPATCH;
  const char* const kind = is_dual       ? "dual"
                           : is_dispatch ? "event interface (dispinterface)"
                                         : "custom, derived from `IUnknown`";
  EXPECT_EQ(AttributesOf(Implemented(info.Get(), 0).Get()).guid,
            is_dispatch ? IID_IDispatch : IID_IUnknown);
  std::string text = "\n## " + NameOf(info.Get()) + "\n\n`" + GuidText(attributes.guid) + "`, " +
                     kind + ". " + HelpOf(info.Get(), MEMBERID_NIL) + "\n\n";
  const UINT inherited_slots = is_dual ? 7 : 3;
  if (is_dual) {
    EXPECT_NE(attributes.wTypeFlags & TYPEFLAG_FDISPATCHABLE, 0);
    info = Implemented(info.Get(), static_cast<UINT>(-1));
    const GUID guid = attributes.guid;
    attributes = AttributesOf(info.Get());
    EXPECT_EQ(attributes.guid, guid);
    EXPECT_NE(attributes.wTypeFlags & TYPEFLAG_FOLEAUTOMATION, 0);
    EXPECT_EQ(AttributesOf(Implemented(info.Get(), 0).Get()).guid, IID_IDispatch);
  }
  for (UINT i = 0; i < attributes.cFuncs; ++i) {
    FUNCDESC* function = nullptr;
    Check(info->GetFuncDesc(i, &function));
    EXPECT_EQ(function->invkind, INVOKE_FUNC);
    EXPECT_EQ(function->callconv, CC_STDCALL);
    EXPECT_EQ(function->elemdescFunc.tdesc.vt, VT_HRESULT);
    EXPECT_EQ(function->funckind, is_dual || !is_dispatch ? FUNC_PUREVIRTUAL : FUNC_DISPATCH);
    if (is_dual || is_dispatch) {
      EXPECT_EQ(function->memid, static_cast<MEMBERID>(i + 1));
    }
    if (is_dual || !is_dispatch) {
      EXPECT_EQ(static_cast<std::size_t>(function->oVft), (inherited_slots + i) * sizeof(void*));
    }
    text += std::to_string(i + 1) + ". `" + SignatureText(info.Get(), *function) + "`\n\n   " +
            HelpOf(info.Get(), function->memid) + "\n";
    info->ReleaseFuncDesc(function);
  }
  return text;
}

TEST(TypeLibrary, IsWhatTheInterfaceReferenceDescribes) {
  ComPtr<ITypeLib> library = LoadLibraryOfModule();
  TLIBATTR* attributes = nullptr;
  ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
  EXPECT_EQ(attributes->wMajorVerNum, 1);
  EXPECT_EQ(attributes->wMinorVerNum, 0);
  EXPECT_EQ(attributes->lcid, 0U);
  EXPECT_EQ(attributes->syskind, sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32);
  Bstr help;
  ASSERT_EQ(library->GetDocumentation(-1, nullptr, help.Receive(), nullptr, nullptr), S_OK);
  std::string text = "(\"" + Narrow(help) + "\", " + GuidText(attributes->guid) + ").\n";
  library->ReleaseTLibAttr(attributes);
  std::string interfaces;
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    Check(library->GetTypeInfo(i, info.GetAddressOf()));
    if (AttributesOf(info.Get()).typekind == TKIND_COCLASS) {
      text += ClassText(info.Get());
    } else {
      interfaces += InterfaceText(info);
    }
  }
  std::istringstream described(text + interfaces);
  std::multiset<std::string> lines;
  for (std::string line; std::getline(described, line);) lines.insert(line);
  EXPECT_GT(lines.size(), 400U);

  // Every line from "## Classes" on, and the line of the library's identity.
  std::ifstream page(TESSALY_SOURCES "/docs/interfaces.md");
  std::multiset<std::string> expected;
  bool in_reference = false;
  for (std::string line; std::getline(page, line);) {
    // Markdown shows two backslashes as one.
    for (std::size_t at = 0; (at = line.find("\\\\", at)) != std::string::npos; ++at)
      line.erase(at, 1);
    in_reference |= line == "## Classes";
    const bool is_prose =
        line == "## Classes" || line.starts_with("The first interface of a class");
    if ((in_reference && !is_prose) || line.starts_with("(\"")) expected.insert(line);
  }
  lines.erase("");
  expected.erase("");
  std::vector<std::string> missing;
  std::vector<std::string> unknown;
  std::ranges::set_difference(expected, lines, std::back_inserter(missing));
  std::ranges::set_difference(lines, expected, std::back_inserter(unknown));
  EXPECT_THAT(missing, ::testing::IsEmpty());
  EXPECT_THAT(unknown, ::testing::IsEmpty());
}

TEST(TypeLibrary, IsFoundUnderAPathThatNoCodePageHolds) {
  const TemporaryFolder folder;
  const std::wstring place = folder.path() + L"\\Ton & Bild 100% (2) #\x00e4\x97f3;,=.dll";
  ASSERT_TRUE(CopyFileW(ModuleUnderTest::Path().c_str(), place.c_str(), TRUE));
  const HMODULE module = LoadLibraryW(place.c_str());
  ASSERT_NE(module, nullptr);
  ASSERT_NE(module, ModuleUnderTest::Handle());
  const auto get_class_object = reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(
      reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
  {
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(get_class_object(CLSID_CNullReader, IID_IClassFactory,
                               reinterpret_cast<void**>(factory.GetAddressOf())),
              S_OK);
    ComPtr<IAudioReader> reader;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IAudioReader,
                                      reinterpret_cast<void**>(reader.GetAddressOf())),
              S_OK);
    ComPtr<ITypeInfo> info;
    EXPECT_EQ(reader->GetTypeInfo(0, 0, info.GetAddressOf()), S_OK);
  }
  EXPECT_TRUE(FreeLibrary(module));
  EXPECT_TRUE(DeleteFileW(place.c_str())) << "the module is still loaded";
}

}  // namespace
}  // namespace marlinda::testing
