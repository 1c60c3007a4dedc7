// Converter.dll through its class object.
#include <converter.h>
#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

class FormatConverter : public ::testing::Test {
 protected:
  void SetUp() override {
    std::wstring path = ModuleUnderTest::Path();
    path = path.substr(0, path.rfind(L'\\')) + L"\\Converter.dll";
    module_ = LoadLibraryW(path.c_str());
    ASSERT_NE(module_, nullptr);
    ASSERT_EQ(GetClass(CLSID_CFormatConverter, factory_), S_OK);
    ASSERT_EQ(factory_->CreateInstance(nullptr, __uuidof(IFormatConverter),
                                       reinterpret_cast<void**>(converter_.GetAddressOf())),
              S_OK);
  }

  template <class Function>
  Function Export(const char* name) const {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
  }

  HRESULT GetClass(REFCLSID clsid, ComPtr<IClassFactory>& factory) const {
    using Get = HRESULT(WINAPI*)(REFCLSID, REFIID, void**);
    return Export<Get>("DllGetClassObject")(
        clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.ReleaseAndGetAddressOf()));
  }

  std::vector<float> Output() const {
    SAFEARRAY* array = nullptr;
    EXPECT_EQ(converter_->GetOutput(&array), S_OK);
    if (array == nullptr) return {9.0F};
    const auto* values = static_cast<const float*>(array->pvData);
    std::vector<float> samples(values, values + array->rgsabound[0].cElements);
    SafeArrayDestroy(array);
    return samples;
  }

  HMODULE module_ = nullptr;
  ComPtr<IClassFactory> factory_;
  ComPtr<IFormatConverter> converter_;
};

TEST_F(FormatConverter, RefusesBadFormatsAndBlocksAndContinues) {
  SAFEARRAY* array = nullptr;
  EXPECT_EQ(converter_->Convert(Floats(2)), E_UNEXPECTED);
  EXPECT_EQ(converter_->GetOutput(&array), E_UNEXPECTED);
  EXPECT_EQ(array, nullptr);
  ASSERT_EQ(converter_->SetUp(44100, 44100, 1, 2, 151), S_OK);
  EXPECT_EQ(converter_->SetUp(0, 44100, 1, 2, 151), E_INVALIDARG);
  EXPECT_EQ(converter_->SetUp(44100, 48000, 1, -2, 151), E_INVALIDARG);
  EXPECT_EQ(converter_->Convert(nullptr), E_INVALIDARG);
  EXPECT_EQ(converter_->Convert(ForeignArray(VT_I4)), E_INVALIDARG);
  EXPECT_EQ(converter_->GetOutput(nullptr), E_POINTER);
  EXPECT_EQ(converter_->Convert(Floats(0)), S_OK);
  EXPECT_TRUE(Output().empty());
  EXPECT_EQ(converter_->Convert(Floats(std::vector<float>{0.25F, -1.5F})), S_OK);
  EXPECT_EQ(Output(), (std::vector<float>{0.25F, 0.25F, -1.5F, -1.5F}));
  EXPECT_TRUE(Output().empty());
}

TEST_F(FormatConverter, StartsANewStreamWithEverySetUp) {
  const Floats ones(4000, 1.0F);
  std::vector<float> first;
  for (int stream = 0; stream < 2; ++stream) {
    ASSERT_EQ(converter_->SetUp(8000, 16000, 1, 1, 151), S_OK);
    EXPECT_TRUE(Output().empty());
    ASSERT_EQ(converter_->Convert(ones), S_OK);
    if (stream == 0) {
      first = Output();
      ASSERT_EQ(converter_->Convert(ones), S_OK);
    }
  }
  EXPECT_GT(first.size(), 7000U);
  EXPECT_EQ(Output(), first);
}

TEST_F(FormatConverter, HasOneClassInAModuleOfItsOwn) {
  ComPtr<IClassFactory> other;
  EXPECT_EQ(GetClass(CLSID_CAudioConnector, other), CLASS_E_CLASSNOTAVAILABLE);
  const auto can_unload = Export<HRESULT(WINAPI*)()>("DllCanUnloadNow");
  EXPECT_EQ(can_unload(), S_FALSE);
  EXPECT_FALSE(As<IDispatch>(converter_));
  EXPECT_FALSE(As<IProvideClassInfo>(converter_));
  converter_.Reset();
  factory_.Reset();
  EXPECT_EQ(can_unload(), S_OK);
}

}  // namespace
}  // namespace marlinda::testing
