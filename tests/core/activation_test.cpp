// Tests a host without registration. The manifest beside this program lists the classes.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "core/apartment.h"
#include "core/handle.h"
#include "tests/edit/document.h"
#include "tests/support/contract_model.h"

namespace marlinda::testing {
namespace {

class Activation : public ::testing::Test {
 protected:
  Activation() {
    ForgetTypeLibrary();
    for (const wchar_t* key :
         {L"Marlinda.NullReader.1", L"TypeLib\\{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}"}) {
      RegistryKey found;
      EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, key, 0, KEY_READ, found.Receive()),
                ERROR_FILE_NOT_FOUND);
    }
  }
  ~Activation() override { ForgetTypeLibrary(); }

 private:
  // Wine registers each type library that a proxy needs, even if a manifest lists the library.
  static void ForgetTypeLibrary() { UnRegisterTypeLib(LIBID_MarlindaLib, 1, 0, 0, SYS_WIN64); }
};

TEST_F(Activation, CreatesEveryClassByIdentifierAndByBothProgIds) {
  for (const Class& known : ClassesOfTheModule()) {
    SCOPED_TRACE(known.name);
    const std::wstring prog_id =
        L"Marlinda." + std::wstring(known.name.begin() + 1, known.name.end());
    EXPECT_TRUE(Create<IUnknown>(known.clsid));
    for (const std::wstring& name : {prog_id, prog_id + L".1"}) {
      // The manifest maps a ProgID to an identifier that is valid only in this program.
      CLSID clsid = {};
      EXPECT_EQ(CLSIDFromProgID(name.c_str(), &clsid), S_OK);
      ComPtr<ITypeInfo> info;
      EXPECT_EQ(As<IProvideClassInfo>(Create<IUnknown>(clsid))->GetClassInfo(info.GetAddressOf()),
                S_OK);
      EXPECT_EQ(AttributesOf(info.Get()).guid, known.clsid);
    }
  }
}

// The objects live in another apartment. This thread calls them through proxies.
void UseProxies() {
  const Apartment apartment(COINIT_MULTITHREADED);
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = As<IAudioWriter>(pool);
  EXPECT_EQ(writer->SetFormat(44100, 1), S_OK);
  EXPECT_EQ(writer->OpenDevice(), S_OK);
  EXPECT_EQ(writer->WriteAudio(Floats(1000, 0.25F)), S_OK);
  EXPECT_EQ(writer->CloseDevice(), S_OK);
  ComPtr<IAudioReader> take;
  ASSERT_EQ(pool->CreateLastReader(take.GetAddressOf()), S_OK);
  const Floats block(1000);
  EXPECT_EQ(take->ReadAudio(0, block), S_OK);
  EXPECT_EQ(block.ToVector(), std::vector<float>(1000, 0.25F));

  const Document document;
  CallLog log;
  const auto sink = MakeObject<Sink>("s", &log);
  sink->Connect(document);
  EXPECT_EQ(document->AppendSegment(take.Get(), 0, 1000), S_OK);
  EXPECT_EQ(document->InitChange(0, nullptr), S_OK);
  EXPECT_EQ(document->CommitChange(), S_OK);
  EXPECT_EQ(log, CallLog{"s3"});
  sink->Disconnect(document);
}

TEST_F(Activation, CarriesArraysAndEventsBetweenApartments) { std::thread(UseProxies).join(); }

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Makes the test support use the same module as this program's manifest: the one in its folder.
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  _wputenv_s(L"TESSALY_DLL",
             std::filesystem::path(path).replace_filename(L"Tessaly.dll").wstring().c_str());
  const marlinda::Apartment apartment(COINIT_APARTMENTTHREADED);
  return RUN_ALL_TESTS();
}
