// A host without any registration: the manifest beside this program names the module's classes.
#include <gtest/gtest.h>

#include <thread>

#include "core/handle.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

bool IsRegistered(const std::wstring& key) {
  RegistryKey found;
  return RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, found.Receive()) ==
         ERROR_SUCCESS;
}

HRESULT GetFactory(REFCLSID clsid) {
  ComPtr<IUnknown> factory;
  return CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                          reinterpret_cast<void**>(factory.GetAddressOf()));
}

class Activation : public ::testing::Test {
 protected:
  void SetUp() override {
    ForgetTypeLibrary();
    ASSERT_FALSE(IsRegistered(L"CLSID\\{95E1D938-FE65-44BB-B2AD-1EF81D278512}"));
    ASSERT_FALSE(IsRegistered(L"Marlinda.NullReader.1"));
    ASSERT_FALSE(IsRegistered(L"TypeLib\\{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}"));
  }
  void TearDown() override { ForgetTypeLibrary(); }

 private:
  // Wine registers a type library that it needs for a proxy, even one found through a manifest.
  static void ForgetTypeLibrary() { UnRegisterTypeLib(LIBID_MarlindaLib, 1, 0, 0, SYS_WIN64); }
};

TEST_F(Activation, EveryClassIsKnownByIdentifierAndByBothProgIds) {
  const std::pair<const wchar_t*, const CLSID&> classes[] = {
      {L"Marlinda.AudioConnector", CLSID_CAudioConnector},
      {L"Marlinda.AudioGrabber", CLSID_CAudioGrabber},
      {L"Marlinda.AudioPlayback", CLSID_CAudioPlayback},
      {L"Marlinda.AudioPool", CLSID_CAudioPool},
      {L"Marlinda.AudioPoolReader", CLSID_CAudioPoolReader},
      {L"Marlinda.AudioScrubber", CLSID_CAudioScrubber},
      {L"Marlinda.DShowExport", CLSID_CDShowExport},
      {L"Marlinda.EditedAudio", CLSID_CEditedAudio},
      {L"Marlinda.WavExportFilter", CLSID_CWavExportFilter},
      {L"Marlinda.DShowImport", CLSID_CDShowImport},
      {L"Marlinda.FileFilterMgr", CLSID_CFileFilterMgr},
      {L"Marlinda.NullReader", CLSID_CNullReader},
      {L"Marlinda.OggImport", CLSID_COggImport},
      {L"Marlinda.WaveWriter", CLSID_CWaveWriter},
  };
  for (const auto& [name, clsid] : classes) {
    // A ProgID of a manifest stands for an identifier that is valid in this program alone.
    CLSID versioned = {};
    CLSID independent = {};
    EXPECT_EQ(CLSIDFromProgID((std::wstring(name) + L".1").c_str(), &versioned), S_OK);
    EXPECT_EQ(CLSIDFromProgID(name, &independent), S_OK);
    const HRESULT offered = GetFactory(clsid);
    // The module itself answers, also for a class that it does not offer yet.
    EXPECT_TRUE(offered == S_OK || offered == CLASS_E_CLASSNOTAVAILABLE) << std::hex << offered;
    EXPECT_EQ(GetFactory(versioned), offered);
    EXPECT_EQ(GetFactory(independent), offered);
  }
  for (const wchar_t* name : {L"Marlinda.NullReader.1", L"Marlinda.NullReader"}) {
    CLSID clsid = {};
    ASSERT_EQ(CLSIDFromProgID(name, &clsid), S_OK);
    EXPECT_NE(As<INullReader>(Create<IUnknown>(clsid)), nullptr);
  }
}

TEST_F(Activation, ObjectsWorkThroughTheirInterfacesAndByName) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  DISPID create = DISPID_UNKNOWN;
  wchar_t name[] = L"Create";
  LPOLESTR names[] = {name};
  EXPECT_EQ(silence->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &create), S_OK);
  EXPECT_EQ(create, 1);
  EXPECT_EQ(silence->Create(1000, 44100, 2), S_OK);
  __int64 count = 0;
  EXPECT_EQ(As<IAudioReader>(silence)->GetSampleCount(&count), S_OK);
  EXPECT_EQ(count, 1000);
}

TEST_F(Activation, ObjectsCreateOthersOfTheModule) {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  EXPECT_EQ(silence->Create(1000, 44100, 2), S_OK);
  auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  EXPECT_EQ(document->AppendSegment(As<IAudioReader>(silence).Get(), 0, 1000), S_OK);
  // Works on two temporary documents that it creates by class identifier.
  EXPECT_EQ(document->Delete(100, 300), S_OK);
  __int64 count = 0;
  EXPECT_EQ(As<IAudioReader>(document)->GetSampleCount(&count), S_OK);
  EXPECT_EQ(count, 800);
}

TEST_F(Activation, AnObjectIsReachedFromAnotherApartment) {
  HRESULT result = E_FAIL;
  __int64 count = 0;
  std::thread client([&] {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
      // The object lives in an apartment of its own and is called through a proxy.
      ComPtr<INullReader> silence;
      ComPtr<IAudioReader> reader;
      result = CreateInstance(CLSID_CNullReader, silence);
      if (SUCCEEDED(result)) result = silence->Create(1000, 44100, 2);
      if (SUCCEEDED(result)) result = silence.As(&reader);
      if (SUCCEEDED(result)) result = reader->GetSampleCount(&count);
    }
    CoUninitialize();
  });
  client.join();
  EXPECT_EQ(result, S_OK) << std::hex << result;
  EXPECT_EQ(count, 1000);
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  const int result = RUN_ALL_TESTS();
  CoUninitialize();
  return result;
}
