// Reads the built type library back out of the module and compares it with the expected contracts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/core/expected_contracts.h"
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

// A type as the tables write it.
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

// Compares the functions of one face of an interface, its vtable or its dispatch one.
void ExpectMethods(ITypeInfo* info, const ExpectedInterface& expected, FUNCKIND kind,
                   UINT inherited_slots) {
  std::vector<std::string> signatures;
  for (UINT i = 0; i < AttributesOf(info).cFuncs; ++i) {
    FUNCDESC* function = nullptr;
    Check(info->GetFuncDesc(i, &function));
    const std::string signature = SignatureText(info, *function);
    SCOPED_TRACE(expected.name + "::" + signature);
    signatures.push_back(signature);
    EXPECT_EQ(function->funckind, kind);
    EXPECT_EQ(function->invkind, INVOKE_FUNC);
    EXPECT_EQ(function->callconv, CC_STDCALL);
    EXPECT_EQ(function->elemdescFunc.tdesc.vt, VT_HRESULT);
    EXPECT_EQ(function->wFuncFlags, 0);
    if (expected.kind != "custom") {
      EXPECT_EQ(function->memid, static_cast<MEMBERID>(i + 1));
    }
    if (kind == FUNC_PUREVIRTUAL) {
      EXPECT_EQ(static_cast<std::size_t>(function->oVft), (inherited_slots + i) * sizeof(void*));
    }
    EXPECT_NE(HelpOf(info, function->memid), "");
    info->ReleaseFuncDesc(function);
  }
  EXPECT_EQ(signatures, expected.methods);
}

void ExpectInterface(ITypeInfo* info, const ExpectedInterface& expected) {
  const TYPEATTR attributes = AttributesOf(info);
  EXPECT_NE(HelpOf(info, MEMBERID_NIL), "");
  const auto slots = [&](UINT inherited) {
    return (inherited + expected.methods.size()) * sizeof(void*);
  };
  if (expected.kind == "custom") {
    EXPECT_EQ(attributes.typekind, TKIND_INTERFACE);
    EXPECT_EQ(attributes.wTypeFlags & (TYPEFLAG_FDUAL | TYPEFLAG_FDISPATCHABLE), 0);
    EXPECT_EQ(attributes.cbSizeVft, slots(3));
    EXPECT_EQ(AttributesOf(Implemented(info, 0).Get()).guid, IID_IUnknown);
    ExpectMethods(info, expected, FUNC_PUREVIRTUAL, 3);
    return;
  }
  EXPECT_EQ(attributes.typekind, TKIND_DISPATCH);
  EXPECT_EQ(AttributesOf(Implemented(info, 0).Get()).guid, IID_IDispatch);
  if (expected.kind == "events") {
    EXPECT_EQ(attributes.wTypeFlags & TYPEFLAG_FDUAL, 0);
    ExpectMethods(info, expected, FUNC_DISPATCH, 7);
    return;
  }
  ASSERT_EQ(expected.kind, "dual");
  constexpr WORD kDualFlags = TYPEFLAG_FDUAL | TYPEFLAG_FDISPATCHABLE;
  EXPECT_EQ(attributes.wTypeFlags & kDualFlags, kDualFlags);
  ComPtr<ITypeInfo> vtable = Implemented(info, static_cast<UINT>(-1));
  const TYPEATTR vtable_attributes = AttributesOf(vtable.Get());
  EXPECT_EQ(vtable_attributes.typekind, TKIND_INTERFACE);
  EXPECT_EQ(vtable_attributes.guid, expected.iid);
  EXPECT_NE(vtable_attributes.wTypeFlags & TYPEFLAG_FOLEAUTOMATION, 0);
  EXPECT_EQ(vtable_attributes.cbSizeVft, slots(7));
  EXPECT_EQ(AttributesOf(Implemented(vtable.Get(), 0).Get()).guid, IID_IDispatch);
  ExpectMethods(vtable.Get(), expected, FUNC_PUREVIRTUAL, 7);
}

TEST(TypeLibrary, IsResourceOneOfTheModuleAndCarriesItsIdentity) {
  ComPtr<ITypeLib> library;
  ASSERT_EQ(LoadTypeLibEx((ModuleUnderTest::Path() + L"\\1").c_str(), REGKIND_NONE,
                          library.GetAddressOf()),
            S_OK);
  TLIBATTR* attributes = nullptr;
  ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
  EXPECT_EQ(attributes->guid, ParseGuid("{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}"));
  EXPECT_EQ(attributes->wMajorVerNum, 1);
  EXPECT_EQ(attributes->wMinorVerNum, 0);
  EXPECT_EQ(attributes->lcid, 0U);
  EXPECT_EQ(attributes->syskind, sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32);
  library->ReleaseTLibAttr(attributes);
  Bstr help;
  ASSERT_EQ(library->GetDocumentation(-1, nullptr, help.Receive(), nullptr, nullptr), S_OK);
  EXPECT_EQ(help.str(), L"Marlinda 1.0 Type Library");
}

TEST(TypeLibrary, HoldsTheTypesOfTheTablesAndNoOthers) {
  ComPtr<ITypeLib> library = LoadLibraryOfModule();
  std::multiset<std::string> found;
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    Check(library->GetTypeInfo(i, info.GetAddressOf()));
    found.insert(NameOf(info.Get()));
  }
  std::multiset<std::string> expected;
  for (const auto& known : ExpectedInterfaces()) expected.insert(known.name);
  for (const auto& known : ExpectedClasses()) expected.insert(known.name);
  EXPECT_EQ(expected.size(), 40U);
  EXPECT_EQ(found, expected);
}

TEST(TypeLibrary, DescribesEveryInterfaceAsTheTablesDo) {
  ComPtr<ITypeLib> library = LoadLibraryOfModule();
  for (const ExpectedInterface& expected : ExpectedInterfaces()) {
    SCOPED_TRACE(expected.name);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(library->GetTypeInfoOfGuid(expected.iid, info.GetAddressOf()), S_OK);
    EXPECT_EQ(NameOf(info.Get()), expected.name);
    ExpectInterface(info.Get(), expected);
  }
}

TEST(TypeLibrary, DescribesEveryClassAsTheTablesDo) {
  ComPtr<ITypeLib> library = LoadLibraryOfModule();
  for (const ExpectedClass& expected : ExpectedClasses()) {
    SCOPED_TRACE(expected.name);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(library->GetTypeInfoOfGuid(expected.clsid, info.GetAddressOf()), S_OK);
    EXPECT_EQ(NameOf(info.Get()), expected.name);
    EXPECT_NE(HelpOf(info.Get(), MEMBERID_NIL), "");
    const TYPEATTR attributes = AttributesOf(info.Get());
    EXPECT_EQ(attributes.typekind, TKIND_COCLASS);
    EXPECT_NE(attributes.wTypeFlags & TYPEFLAG_FCANCREATE, 0);
    std::map<INT, std::vector<std::string>> by_flags;
    for (UINT i = 0; i < attributes.cImplTypes; ++i) {
      INT flags = 0;
      Check(info->GetImplTypeFlags(i, &flags));
      by_flags[flags & IMPLTYPEFLAG_FSOURCE].push_back(NameOf(Implemented(info.Get(), i).Get()));
      // The first of the interfaces and the first of the events is the default one.
      const bool first = by_flags[flags & IMPLTYPEFLAG_FSOURCE].size() == 1;
      EXPECT_EQ((flags & IMPLTYPEFLAG_FDEFAULT) != 0, first);
    }
    EXPECT_EQ(by_flags[0], expected.interfaces);
    EXPECT_EQ(by_flags[IMPLTYPEFLAG_FSOURCE], expected.events);
  }
}

// The module must find its own type library wherever it was installed: the system's function for it
// takes neither long paths nor all names.
TEST(TypeLibrary, IsFoundByAModuleUnderAnyPath) {
  const TemporaryFolder folder;
  // The prefix lets the system take paths of more than MAX_PATH characters.
  std::vector<std::wstring> nested = {L"\\\\?\\" + folder.path()};
  for (int i = 0; i < 6; ++i) {
    nested.push_back(nested.back() + L"\\" + std::wstring(60, static_cast<wchar_t>(L'a' + i)));
    ASSERT_TRUE(CreateDirectoryW(nested.back().c_str(), nullptr));
  }
  const std::wstring& deep = nested.back();
  ASSERT_GT(deep.size(), static_cast<std::size_t>(MAX_PATH));
  const std::wstring odd = folder.path() + L"\\Ton & Bild 100% (2) #\x00e4\x97f3;,=";
  ASSERT_TRUE(CreateDirectoryW(odd.c_str(), nullptr));
  for (const std::wstring& place :
       {deep + L"\\Tessaly.dll", odd + L"\\Tessaly.dll", odd + L"\\Tessaly.x\x97f3"}) {
    SCOPED_TRACE(::testing::PrintToString(place));
    ASSERT_TRUE(CopyFileW(ModuleUnderTest::Path().c_str(), place.c_str(), TRUE));
    const HMODULE module = LoadLibraryW(place.c_str());
    ASSERT_NE(module, nullptr);
    ASSERT_NE(module, ModuleUnderTest::Handle());
    const auto get_class_object = reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
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
    DISPPARAMS none = {};
    EXPECT_EQ(reader->Invoke(4, IID_NULL, 0, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr),
              S_OK);
    info.Reset();
    reader.Reset();
    factory.Reset();
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(DeleteFileW(place.c_str())) << "the module is not let go";
  }
  for (; nested.size() > 1; nested.pop_back()) RemoveDirectoryW(nested.back().c_str());
}

}  // namespace
}  // namespace marlinda::testing
