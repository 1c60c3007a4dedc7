// Converter.dll through its class object.
#include <converter.h>
#include <gtest/gtest.h>

#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

class FormatConverter : public ::testing::Test {
 protected:
  FormatConverter() {
    Check(GetClass(CLSID_CFormatConverter));
    Check(factory_->CreateInstance(nullptr, __uuidof(IFormatConverter),
                                   reinterpret_cast<void**>(converter_.GetAddressOf())));
  }
  HRESULT GetClass(REFCLSID clsid) {
    return ExportAs<decltype(DllGetClassObject)>(module_, "DllGetClassObject")(
        clsid, IID_IClassFactory, reinterpret_cast<void**>(factory_.ReleaseAndGetAddressOf()));
  }
  std::vector<float> Output() const {
    SAFEARRAY* array = nullptr;
    Check(converter_->GetOutput(&array));
    const auto* values = static_cast<const float*>(array->pvData);
    std::vector<float> samples(values, values + array->rgsabound[0].cElements);
    SafeArrayDestroy(array);
    return samples;
  }

  const HMODULE module_ = LoadLibraryW(ModuleUnderTest::Sibling(L"Converter.dll").c_str());
  ComPtr<IClassFactory> factory_;
  ComPtr<IFormatConverter> converter_;
};

TEST_F(FormatConverter, RefusesBadFormatsAndStartsANewStreamWithEverySetUp) {
  EXPECT_EQ(converter_->Convert(Floats(2)), E_UNEXPECTED);
  ASSERT_EQ(converter_->SetUp(44100, 44100, 1, 2, 151), S_OK);
  EXPECT_EQ(converter_->SetUp(0, 44100, 1, 2, 151), E_INVALIDARG);
  EXPECT_EQ(converter_->Convert(Floats(0)), S_OK);
  EXPECT_TRUE(Output().empty());
  EXPECT_EQ(converter_->Convert(Floats(std::vector<float>{0.25F, -1.5F})), S_OK);
  EXPECT_EQ(Output(), (std::vector<float>{0.25F, 0.25F, -1.5F, -1.5F}));
  EXPECT_TRUE(Output().empty());
  std::vector<float> outputs[2];
  for (std::vector<float>& output : outputs) {
    ASSERT_EQ(converter_->SetUp(8000, 16000, 1, 1, 151), S_OK);
    EXPECT_TRUE(Output().empty());
    ASSERT_EQ(converter_->Convert(Floats(4000, 1.0F)), S_OK);
    output = Output();
    ASSERT_EQ(converter_->Convert(Floats(4000, 1.0F)), S_OK);
  }
  EXPECT_GT(outputs[0].size(), 7000U);
  EXPECT_EQ(outputs[1], outputs[0]);
  // The module contains only this class.
  EXPECT_EQ(GetClass(CLSID_CAudioConnector), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_FALSE(As<IDispatch>(converter_) || As<IProvideClassInfo>(converter_));
}

}  // namespace
}  // namespace marlinda::testing
